#pragma once

#include "public/common/Bytes.h"

#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace skein {

/// A value of the bencoding: an integer, a byte string, a list or a dictionary. Source: BEP 3.
///
/// What an accessor returns is a view into the value and lives as long as it; each yields nothing (an empty optional,
/// a null pointer) when the value is of another kind. Plain data; not locked.
class BEncodeValue {
public:
    enum class Kind : std::uint8_t { integer, string, list, dictionary };
    using List = std::vector<BEncodeValue>;
    /// In the order decoded or built; a key may stand twice. Keys are bytes: those of piece layers (BEP 52) are
    /// hashes.
    using Dictionary = std::vector<std::pair<std::string, BEncodeValue>>;

    BEncodeValue() = default;
    template <std::integral Integer>
    requires(!std::same_as<Integer, bool> && !std::same_as<Integer, char>) BEncodeValue(Integer value)
        : value_(static_cast<std::int64_t>(value)) {}
    BEncodeValue(std::string bytes) : value_(std::move(bytes)) {}
    BEncodeValue(std::string_view bytes) : value_(std::string(bytes)) {}
    BEncodeValue(const char* text) : value_(std::string(text)) {}
    BEncodeValue(ByteView bytes) : value_(std::string(asText(bytes))) {}
    BEncodeValue(const Bytes& bytes) : BEncodeValue(ByteView(bytes)) {}
    BEncodeValue(List elements) : value_(std::move(elements)) {}
    BEncodeValue(Dictionary entries) : value_(std::move(entries)) {}

    Kind kind() const noexcept { return static_cast<Kind>(value_.index()); }
    std::optional<std::int64_t> intValue() const noexcept;
    /// The bytes of a string as text; nothing when they are not valid UTF-8.
    std::optional<std::string_view> stringValue() const noexcept;
    std::optional<ByteView> dataValue() const noexcept;
    const List* listValue() const noexcept { return std::get_if<List>(&value_); }
    const Dictionary* dictionaryValue() const noexcept { return std::get_if<Dictionary>(&value_); }

    /// The value of the first entry with this key. Linear, as dictionaries from outside are read by few keys.
    const BEncodeValue* operator[](std::string_view key) const noexcept;
    std::optional<std::int64_t> intAt(std::string_view key) const noexcept;
    std::optional<std::string_view> stringAt(std::string_view key) const noexcept;
    std::optional<ByteView> dataAt(std::string_view key) const noexcept;
    const List* listAt(std::string_view key) const noexcept;

    /// Same kind and payload; dictionaries entry by entry in their order.
    friend bool operator==(const BEncodeValue& left, const BEncodeValue& right);

private:
    std::variant<std::int64_t, std::string, List, Dictionary> value_;  // in the order of Kind
};

}  // namespace skein
