#include "public/common/Printable.h"

#include "public/common/ValidUTF8.h"

#include <algorithm>

namespace skein {

namespace {

bool isHarmless(std::string_view character) noexcept {
    if (character.size() == 1) return character[0] >= ' ' && character[0] != 0x7F;
    // U+0080 to U+009F are control characters.
    if (character.size() == 2) return character < "\xC2\x80" || character > "\xC2\x9F";
    if (character.size() != 3) return true;
    const auto isBetween = [character](const char* first, const char* last) {
        return character >= first && character <= last;
    };
    // U+200E, U+200F, U+2028 to U+202E, U+2066 to U+2069: writing directions and line breaks.
    return !isBetween("\xE2\x80\x8E", "\xE2\x80\x8F") && !isBetween("\xE2\x80\xA8", "\xE2\x80\xAE") &&
           !isBetween("\xE2\x81\xA6", "\xE2\x81\xA9");
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = firstCharacterLength(text);
        const std::string_view character = text.substr(0, std::max<std::size_t>(length, 1));
        if (length > 0 && isHarmless(character)) {
            result += character;
        } else {
            result += '?';
        }
        text.remove_prefix(character.size());
    }
    return result;
}

}  // namespace skein
