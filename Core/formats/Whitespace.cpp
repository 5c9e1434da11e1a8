#include "Core/formats/Whitespace.h"

#include <algorithm>
#include <array>

namespace skein {

namespace {

using namespace std::string_view_literals;

/// Beyond ASCII: U+0085, U+00A0, U+1680, U+2000 to U+200A, U+2028, U+2029, U+202F, U+205F, U+3000.
constexpr std::array wideSpaces{
    "\xC2\x85"sv,     "\xC2\xA0"sv,     "\xE1\x9A\x80"sv, "\xE2\x80\x80"sv, "\xE2\x80\x81"sv,
    "\xE2\x80\x82"sv, "\xE2\x80\x83"sv, "\xE2\x80\x84"sv, "\xE2\x80\x85"sv, "\xE2\x80\x86"sv,
    "\xE2\x80\x87"sv, "\xE2\x80\x88"sv, "\xE2\x80\x89"sv, "\xE2\x80\x8A"sv, "\xE2\x80\xA8"sv,
    "\xE2\x80\xA9"sv, "\xE2\x80\xAF"sv, "\xE2\x81\x9F"sv, "\xE3\x80\x80"sv,
};

bool isPlainSpace(char character) noexcept { return character == ' ' || (character >= '\t' && character <= '\r'); }

/// The same for the character that ends before `end`.
std::size_t whitespaceBefore(std::string_view text, std::size_t end) noexcept {
    for (std::size_t length = 1; length <= std::min<std::size_t>(end, 3); ++length)
        if (whitespaceAt(text, end - length) == length) return length;
    return 0;
}

}  // namespace

std::size_t whitespaceAt(std::string_view text, std::size_t index) noexcept {
    if (index >= text.size()) return 0;
    if (isPlainSpace(text[index])) return 1;
    if (static_cast<unsigned char>(text[index]) < 0x80) return 0;
    const std::string_view rest = text.substr(index);
    const auto* const found =
        std::find_if(wideSpaces.begin(), wideSpaces.end(), [rest](auto space) { return rest.starts_with(space); });
    return found != wideSpaces.end() ? found->size() : 0;
}

std::string_view trimWhitespace(std::string_view text) noexcept {
    while (const std::size_t length = whitespaceAt(text, 0)) text.remove_prefix(length);
    while (const std::size_t length = whitespaceBefore(text, text.size())) text.remove_suffix(length);
    return text;
}

}  // namespace skein
