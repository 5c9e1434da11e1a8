#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

/// The parts of a tracker's URL, as they stand in it. User information and the fragment are dropped: neither is sent.
struct TrackerURL {
    std::string scheme;
    std::string host;  ///< without brackets
    std::optional<std::uint16_t> port;
    std::string path;                  ///< with its leading "/"; may be empty
    std::optional<std::string> query;  ///< without the "?"

    /// Nothing for a text without scheme or host, with a port that is none, or with characters no URL has.
    static std::optional<TrackerURL> parse(std::string_view text);
    /// The URL with `more` appended to its query.
    std::string withQuery(std::string_view more) const;
};

}  // namespace skein
