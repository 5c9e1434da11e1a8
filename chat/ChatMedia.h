#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

/// The picture, sound or file that comes with a message. All of it is what a stranger wrote. Plain data; any thread.
struct ChatMedia {
    std::string kind = "file";         ///< "image", "audio", "video", or what else the sender calls it
    std::string name;                  ///< not a safe file name; empty when none was given
    std::optional<std::int64_t> size;  ///< bytes, as the sender says
    std::string url;                   ///< http or https; empty when there is nothing to fetch

    /// Nothing for a text that is neither a JSON object nor a JSON text (which is then the URL). The protocol does not
    /// fix the keys: "type" or "kind", "name" or "fileName", "size" or "fileSize", "url" or "fileUrl" are understood.
    static std::optional<ChatMedia> read(std::string_view mediaJson);
};

}  // namespace skein
