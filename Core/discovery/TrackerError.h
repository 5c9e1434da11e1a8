#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace skein {

/// Why an announce failed. The texts are shown to users and do not change.
enum class TrackerError : std::uint8_t { trackerError, invalidURL, invalidResponse, timeout };
std::string_view textOf(TrackerError error) noexcept;

/// Thrown by announces. `what()` is the text, followed by `detail` where the text ends in a colon.
class TrackerException : public std::runtime_error {
public:
    explicit TrackerException(TrackerError why, std::string_view detail = {})
        : std::runtime_error(std::string(textOf(why)).append(detail)), error(why) {}
    const TrackerError error;
};

}  // namespace skein
