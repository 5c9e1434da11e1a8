#include "public/common/PlainJSON.h"

#include "public/common/Bytes.h"
#include "public/common/OddCharacters.h"
#include "public/common/ValidUTF8.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

#include <array>
#include <charconv>
#include <cmath>
#include <string_view>

namespace skein {

namespace json = boost::json;

namespace {

/// What becomes of a string's bytes that are no UTF-8.
enum class OddBytes { replaced, kept };

template <OddBytes oddBytes>
void append(std::string& text, const json::value& value);

char32_t codePointOf(std::string_view character) noexcept {
    constexpr unsigned bitsEach = 6;
    const auto first = static_cast<unsigned char>(character.front());
    char32_t code = first & (character.size() == 1 ? 0x7FU : 0x7FU >> character.size());
    for (const char next : character.substr(1)) code = code << bitsEach | (static_cast<unsigned char>(next) & 0x3FU);
    return code;
}

void appendEscape(std::string& text, std::string_view character) {
    constexpr std::string_view digits = "0123456789abcdef";
    const char32_t code = codePointOf(character);
    text += "\\u";
    for (int shift = 12; shift >= 0; shift -= 4) text += digits[code >> static_cast<unsigned>(shift) & 0xFU];
}

/// Boost.JSON escapes what JSON wants to have escaped; who looks at it on a terminal needs more.
void appendHarmless(std::string& text, std::string_view serialized) {
    std::size_t copied = 0;
    for (std::size_t at = 0; at < serialized.size();) {
        const std::size_t length = oddLength(serialized.substr(at));
        if (length == 0) {
            ++at;
            continue;
        }
        text += serialized.substr(copied, at - copied);
        appendEscape(text, serialized.substr(at, length));
        at += length;
        copied = at;
    }
    text += serialized.substr(copied);
}

template <OddBytes oddBytes>
void append(std::string& text, std::string_view string) {
    const bool isKept = oddBytes == OddBytes::kept || isValidUTF8(asBytes(string));
    const auto serialize = [](std::string_view valid) { return json::serialize(json::string_view(valid)); };
    appendHarmless(text, isKept ? serialize(string) : serialize(toValidUTF8(string)));
}

void append(std::string& text, double number) {
    if (!std::isfinite(number)) {
        text += "null";
        return;
    }
    std::array<char, 512> digits{};  // the longest, near the smallest number that there is, has some 345
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number, std::chars_format::fixed);
    text.append(digits.data(), result.ptr);
}

template <OddBytes oddBytes>
void append(std::string& text, const json::object& object) {
    text += '{';
    bool isFirst = true;
    for (const auto& [key, value] : object) {
        if (!isFirst) text += ',';
        isFirst = false;
        append<oddBytes>(text, std::string_view(key));
        text += ':';
        append<oddBytes>(text, value);
    }
    text += '}';
}

template <OddBytes oddBytes>
void append(std::string& text, const json::array& array) {
    text += '[';
    bool isFirst = true;
    for (const json::value& value : array) {
        if (!isFirst) text += ',';
        isFirst = false;
        append<oddBytes>(text, value);
    }
    text += ']';
}

template <OddBytes oddBytes>
void append(std::string& text, const json::value& value) {
    switch (value.kind()) {
        case json::kind::double_: return append(text, value.get_double());
        case json::kind::object: return append<oddBytes>(text, value.get_object());
        case json::kind::array: return append<oddBytes>(text, value.get_array());
        case json::kind::string: return append<oddBytes>(text, std::string_view(value.get_string()));
        default: text += json::serialize(value);
    }
}

template <OddBytes oddBytes, class Value>
std::string textOf(const Value& value) {
    std::string text;
    append<oddBytes>(text, value);
    return text;
}

}  // namespace

std::string plainJSON(const json::value& value) { return textOf<OddBytes::replaced>(value); }
std::string plainJSON(const json::object& object) { return textOf<OddBytes::replaced>(object); }
std::string plainJSON(const json::array& array) { return textOf<OddBytes::replaced>(array); }
std::string plainJSONOfBytes(const json::object& object) { return textOf<OddBytes::kept>(object); }

}  // namespace skein
