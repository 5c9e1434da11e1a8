#include "public/common/ValidUTF8.h"

#include "public/common/Bytes.h"

#include <algorithm>

namespace skein {

std::size_t firstCharacterLength(std::string_view text) noexcept {
    for (std::size_t length = 1; length <= std::min<std::size_t>(text.size(), 4); ++length)
        if (isValidUTF8(asBytes(text.substr(0, length)))) return length;
    return 0;
}

std::string toValidUTF8(std::string_view text) {
    constexpr std::string_view replacement = "\xEF\xBF\xBD";
    std::string valid;
    while (!text.empty()) {
        const std::size_t length = firstCharacterLength(text);
        valid += length == 0 ? replacement : text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return valid;
}

}  // namespace skein
