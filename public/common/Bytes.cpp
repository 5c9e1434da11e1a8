#include "public/common/Bytes.h"

namespace skein {

namespace {

std::string hexWith(const char* digits, ByteView bytes) {
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const std::uint8_t byte : bytes) {
        text.push_back(digits[byte >> 4U]);
        text.push_back(digits[byte & 0xFU]);
    }
    return text;
}

int hexValue(char digit) noexcept {
    if (digit >= '0' && digit <= '9') return digit - '0';
    if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
    if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
    return -1;
}

/// How many bytes the sequence that starts with `lead` has, and the smallest code point that needs so many.
struct UTF8Sequence {
    std::size_t length;
    std::uint32_t smallest;
    std::uint32_t leadBits;
};

UTF8Sequence sequenceOf(std::uint8_t lead) noexcept {
    if (lead < 0x80) return {1, 0, lead};
    if (lead >= 0xC2 && lead < 0xE0) return {2, 0x80, lead & 0x1FU};
    if (lead >= 0xE0 && lead < 0xF0) return {3, 0x800, lead & 0x0FU};
    if (lead >= 0xF0 && lead < 0xF5) return {4, 0x10000, lead & 0x07U};
    return {0, 0, 0};
}

}  // namespace

Bytes toBytes(std::string_view text) { return {text.begin(), text.end()}; }

std::string_view asText(ByteView bytes) noexcept { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

ByteView asBytes(std::string_view text) noexcept {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string toHex(ByteView bytes) { return hexWith("0123456789abcdef", bytes); }
std::string toUpperHex(ByteView bytes) { return hexWith("0123456789ABCDEF", bytes); }

std::optional<Bytes> fromHex(std::string_view text) {
    if (text.size() % 2 != 0) return std::nullopt;
    Bytes bytes;
    bytes.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = hexValue(text[i]);
        const int low = hexValue(text[i + 1]);
        if (high < 0 || low < 0) return std::nullopt;
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return bytes;
}

bool isValidUTF8(ByteView bytes) noexcept {
    for (std::size_t i = 0; i < bytes.size();) {
        const UTF8Sequence sequence = sequenceOf(bytes[i]);
        if (sequence.length == 0 || bytes.size() - i < sequence.length) return false;
        std::uint32_t codePoint = sequence.leadBits;
        for (std::size_t k = 1; k < sequence.length; ++k) {
            if ((bytes[i + k] & 0xC0U) != 0x80U) return false;
            codePoint = codePoint << 6U | (bytes[i + k] & 0x3FU);
        }
        const bool isSurrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
        if (codePoint < sequence.smallest || codePoint > 0x10FFFF || isSurrogate) return false;
        i += sequence.length;
    }
    return true;
}

}  // namespace skein
