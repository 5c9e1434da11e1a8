#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace skein {

/// Why bytes are not bencode. The texts are shown to users and do not change.
enum class BEncodeError : std::uint8_t { invalidFormat, unexpectedEnd, invalidInteger, invalidStringLength };
std::string_view textOf(BEncodeError error) noexcept;

/// Thrown by decoding. `what()` is the text, followed by `detail` where the text ends in a colon.
class BEncodeException : public std::runtime_error {
public:
    explicit BEncodeException(BEncodeError why, std::string_view detail = {})
        : std::runtime_error(std::string(textOf(why)).append(detail)), error(why) {}
    const BEncodeError error;
};

}  // namespace skein
