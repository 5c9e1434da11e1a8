#include "public/common/OddCharacters.h"

#include <algorithm>

namespace skein {

namespace {

constexpr bool isBetween(std::string_view character, std::string_view first, std::string_view last) noexcept {
    return character >= first && character <= last;
}

bool isOddPair(std::string_view pair) noexcept { return isBetween(pair, "\xC2\x80", "\xC2\x9F") || pair == "\xD8\x9C"; }

bool isOddTriple(std::string_view triple) noexcept {
    return triple == "\xE2\x80\x8B" || isBetween(triple, "\xE2\x80\x8E", "\xE2\x80\x8F") ||
           isBetween(triple, "\xE2\x80\xA8", "\xE2\x80\xAE") || isBetween(triple, "\xE2\x81\xA6", "\xE2\x81\xA9") ||
           triple == "\xEF\xBB\xBF";
}

}  // namespace

std::size_t oddLength(std::string_view text) noexcept {
    if (text.empty()) return 0;
    switch (static_cast<unsigned char>(text.front())) {
        case 0x7F: return 1;
        case 0xC2:
        case 0xD8: return isOddPair(text.substr(0, 2)) ? 2 : 0;
        case 0xE2:
        case 0xEF: return isOddTriple(text.substr(0, 3)) ? 3 : 0;
        default: return static_cast<unsigned char>(text.front()) < 0x20 ? 1 : 0;
    }
}

bool hasOdd(std::string_view text) noexcept {
    for (; !text.empty(); text.remove_prefix(1))
        if (oddLength(text) > 0) return true;
    return false;
}

std::string withoutOdd(std::string_view text, char instead) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = oddLength(text);
        result += length > 0 ? instead : text.front();
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return result;
}

}  // namespace skein
