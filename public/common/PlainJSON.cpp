#include "public/common/PlainJSON.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

#include <array>
#include <charconv>
#include <cmath>

namespace skein {

namespace json = boost::json;

namespace {

void append(std::string& text, const json::value& value);

void append(std::string& text, double number) {
    if (!std::isfinite(number)) {
        text += "null";
        return;
    }
    std::array<char, 512> digits{};  // the longest, near the smallest number that there is, has some 345
    const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), number, std::chars_format::fixed);
    text.append(digits.data(), result.ptr);
}

void append(std::string& text, const json::object& object) {
    text += '{';
    bool isFirst = true;
    for (const auto& [key, value] : object) {
        if (!isFirst) text += ',';
        isFirst = false;
        text.append(json::serialize(key)).append(":");
        append(text, value);
    }
    text += '}';
}

void append(std::string& text, const json::array& array) {
    text += '[';
    bool isFirst = true;
    for (const json::value& value : array) {
        if (!isFirst) text += ',';
        isFirst = false;
        append(text, value);
    }
    text += ']';
}

void append(std::string& text, const json::value& value) {
    switch (value.kind()) {
        case json::kind::double_: return append(text, value.get_double());
        case json::kind::object: return append(text, value.get_object());
        case json::kind::array: return append(text, value.get_array());
        default: text += json::serialize(value);
    }
}

template <class Value>
std::string textOf(const Value& value) {
    std::string text;
    append(text, value);
    return text;
}

}  // namespace

std::string plainJSON(const json::value& value) { return textOf(value); }
std::string plainJSON(const json::object& object) { return textOf(object); }
std::string plainJSON(const json::array& array) { return textOf(array); }

}  // namespace skein
