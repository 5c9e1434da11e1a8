#include "app/TextWidth.h"

#include <algorithm>

namespace skein {

namespace {

struct Range {
    char32_t first;
    char32_t last;
};

/// East Asian wide and full-width characters, and pictures. Source: Unicode, EastAsianWidth.txt, whole blocks.
constexpr Range wide[] = {
    {0x1100, 0x115F},   {0x231A, 0x231B},   {0x23E9, 0x23F3},   {0x25FD, 0x25FE},   {0x2614, 0x2615},
    {0x2648, 0x2653},   {0x26A1, 0x26A1},   {0x26BD, 0x26BE},   {0x26CE, 0x26CE},   {0x26D4, 0x26D4},
    {0x2705, 0x2705},   {0x2728, 0x2728},   {0x274C, 0x274C},   {0x2753, 0x2757},   {0x2795, 0x2797},
    {0x2B1B, 0x2B1C},   {0x2B50, 0x2B50},   {0x2B55, 0x2B55},   {0x2E80, 0x303E},   {0x3041, 0xA4CF},
    {0xA960, 0xA97F},   {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE10, 0xFE19},   {0xFE30, 0xFE6F},
    {0xFF01, 0xFF60},   {0xFFE0, 0xFFE6},   {0x16FE0, 0x18DFF}, {0x1B000, 0x1B2FF}, {0x1F18E, 0x1F18E},
    {0x1F191, 0x1F19A}, {0x1F200, 0x1F320}, {0x1F32D, 0x1F64F}, {0x1F680, 0x1F6FF}, {0x1F7E0, 0x1F7EB},
    {0x1F90C, 0x1F9FF}, {0x1FA70, 0x1FAFF}, {0x20000, 0x3FFFD},
};

/// Combining marks, joiners and variation selectors.
constexpr Range without[] = {
    {0x0300, 0x036F}, {0x0483, 0x0489}, {0x0591, 0x05BD},   {0x0610, 0x061A}, {0x064B, 0x065F}, {0x0900, 0x0902},
    {0x093C, 0x093C}, {0x0941, 0x0948}, {0x094D, 0x094D},   {0x0E31, 0x0E31}, {0x0E34, 0x0E3A}, {0x0E47, 0x0E4E},
    {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF}, {0x200B, 0x200F},   {0x20D0, 0x20FF}, {0x3099, 0x309A}, {0xFE00, 0xFE0F},
    {0xFE20, 0xFE2F}, {0xFEFF, 0xFEFF}, {0xE0100, 0xE01EF},
};

template <std::size_t count>
bool isIn(const Range (&ranges)[count], char32_t character) noexcept {
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [character](const Range& range) { return character >= range.first && character <= range.last; });
}

/// Takes the first character off `text`; a byte that begins none counts as one.
char32_t takeCharacter(std::string_view& text) noexcept {
    const auto byteAt = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byteAt(0);
    const std::size_t length = lead < 0xC0U ? 1 : lead < 0xE0U ? 2 : lead < 0xF0U ? 3 : 4;
    char32_t character = length == 1 ? lead : lead & (0xFFU >> (length + 1));
    std::size_t taken = 1;
    for (; taken < std::min(length, text.size()); ++taken) character = character << 6U | (byteAt(taken) & 0x3FU);
    text.remove_prefix(taken);
    return character;
}

std::size_t widthOf(char32_t character) noexcept {
    if (character < 0x300) return 1;
    if (isIn(without, character)) return 0;
    return isIn(wide, character) ? 2 : 1;
}

}  // namespace

std::size_t columnsOf(std::string_view text) noexcept {
    std::size_t columns = 0;
    while (!text.empty()) columns += widthOf(takeCharacter(text));
    return columns;
}

std::string fitted(std::string_view text, std::size_t columns) {
    const std::size_t all = columnsOf(text);
    if (all <= columns) return std::string(text).append(columns - all, ' ');
    if (columns == 0) return {};
    std::string_view rest = text;
    std::size_t taken = 0;
    for (;;) {
        std::string_view next = rest;
        const std::size_t width = widthOf(takeCharacter(next));
        if (taken + width > columns - 1) break;
        taken += width;
        rest = next;
    }
    return std::string(text.substr(0, text.size() - rest.size())).append("…").append(columns - 1 - taken, ' ');
}

std::string rightAligned(std::string_view text, std::size_t columns) {
    return std::string(columns - std::min(columns, columnsOf(text)), ' ').append(text);
}

}  // namespace skein
