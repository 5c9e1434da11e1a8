#include "Core/formats/BEncodeValue.h"

namespace skein {

std::optional<std::int64_t> BEncodeValue::intValue() const noexcept {
    if (const auto* integer = std::get_if<std::int64_t>(&value_)) return *integer;
    return std::nullopt;
}

std::optional<ByteView> BEncodeValue::dataValue() const noexcept {
    if (const auto* bytes = std::get_if<std::string>(&value_)) return asBytes(*bytes);
    return std::nullopt;
}

std::optional<std::string_view> BEncodeValue::stringValue() const noexcept {
    const auto bytes = dataValue();
    if (bytes && isValidUTF8(*bytes)) return asText(*bytes);
    return std::nullopt;
}

const BEncodeValue* BEncodeValue::operator[](std::string_view key) const noexcept {
    const Dictionary* entries = dictionaryValue();
    if (entries == nullptr) return nullptr;
    for (const auto& [name, value] : *entries)
        if (name == key) return &value;
    return nullptr;
}

std::optional<std::int64_t> BEncodeValue::intAt(std::string_view key) const noexcept {
    const BEncodeValue* value = (*this)[key];
    return value != nullptr ? value->intValue() : std::nullopt;
}

std::optional<std::string_view> BEncodeValue::stringAt(std::string_view key) const noexcept {
    const BEncodeValue* value = (*this)[key];
    return value != nullptr ? value->stringValue() : std::nullopt;
}

std::optional<ByteView> BEncodeValue::dataAt(std::string_view key) const noexcept {
    const BEncodeValue* value = (*this)[key];
    return value != nullptr ? value->dataValue() : std::nullopt;
}

const BEncodeValue::List* BEncodeValue::listAt(std::string_view key) const noexcept {
    const BEncodeValue* value = (*this)[key];
    return value != nullptr ? value->listValue() : nullptr;
}

bool operator==(const BEncodeValue& left, const BEncodeValue& right) { return left.value_ == right.value_; }

}  // namespace skein
