#pragma once

#include <boost/describe/enumerators.hpp>
#include <boost/describe/members.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <boost/mp11/algorithm.hpp>

#include <cmath>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

/// Plain records to and from JSON, by their description (BOOST_DESCRIBE_STRUCT): a field `infoHash` is the key
/// "info_hash". Enumerations travel as their `textOf`.
namespace skein::JSONRecord {

namespace json = boost::json;

/// What holds of a record that has no rules of its own.
struct PlainRules {
    /// The key of a field that does not go by its name; empty for the others.
    static constexpr std::string_view keyOf(std::string_view /*field*/) noexcept { return {}; }
    /// A field that may be missing keeps its default. Optional fields and lists may always be missing, or null.
    static constexpr bool mayBeMissing(std::string_view /*field*/) noexcept { return false; }
    /// Judges the values of a record whose types are right.
    template <class Record>
    static bool isPlausible(const Record&) noexcept {
        return true;
    }
    /// A list goes on without an element that cannot be read; otherwise the list cannot be read either.
    static constexpr bool skipsUnreadable = false;
};
template <class Record>
struct Rules : PlainRules {};

/// "dlBytesPublicBT" as "dl_bytes_public_bt": a run of capitals is one word, whose last letter opens the next word when
/// a small one follows.
inline std::string snakeCase(std::string_view name) {
    const auto isUpper = [&](std::size_t at) { return at < name.size() && name[at] >= 'A' && name[at] <= 'Z'; };
    std::string key;
    for (std::size_t i = 0; i < name.size(); ++i) {
        const bool startsWord = isUpper(i) && i > 0 && (!isUpper(i - 1) || (i + 1 < name.size() && !isUpper(i + 1)));
        if (startsWord) key += '_';
        key += isUpper(i) ? static_cast<char>(name[i] - 'A' + 'a') : name[i];
    }
    return key;
}

template <class T>
struct IsList : std::false_type {};
template <class T>
struct IsList<std::vector<T>> : std::true_type {};
template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};

/// Calls `visit(key, field, mayBeMissing)` for each described field of `record`, in their order, while it returns true.
template <class Record, class Visit>
bool forEachField(Record& record, Visit visit) {
    using Plain = std::remove_const_t<Record>;
    bool goesOn = true;
    boost::mp11::mp_for_each<boost::describe::describe_members<Plain, boost::describe::mod_public>>([&](auto member) {
        using Member = decltype(member);
        static const std::string key = Rules<Plain>::keyOf(Member::name).empty()
                                           ? snakeCase(Member::name)
                                           : std::string(Rules<Plain>::keyOf(Member::name));
        if (goesOn) goesOn = visit(key, record.*Member::pointer, Rules<Plain>::mayBeMissing(Member::name));
    });
    return goesOn;
}

template <class T>
json::value write(const T& value) {
    if constexpr (std::is_same_v<T, std::string>) {
        return json::string(value);
    } else if constexpr (std::is_enum_v<T>) {
        return json::string(textOf(value));
    } else if constexpr (std::is_arithmetic_v<T>) {
        return value;
    } else if constexpr (IsList<T>::value) {
        json::array list;
        list.reserve(value.size());
        for (const auto& element : value) list.push_back(write(element));
        return list;
    } else {
        json::object fields;
        forEachField(value, [&](const std::string& key, const auto& field, bool) {
            if constexpr (IsOptional<std::remove_cvref_t<decltype(field)>>::value) {
                if (field) fields.emplace(key, write(*field));
            } else {
                fields.emplace(key, write(field));
            }
            return true;
        });
        return fields;
    }
}

template <class T>
bool read(const json::value& value, T& into);

template <class Element>
bool readList(const json::value& value, std::vector<Element>& into) {
    if (!value.is_array()) return false;
    for (const json::value& item : value.get_array()) {
        Element element{};
        if (read(item, element)) {
            into.push_back(std::move(element));
        } else if constexpr (!Rules<Element>::skipsUnreadable) {
            return false;
        }
    }
    return true;
}

template <class Enumeration>
bool readEnumeration(const json::value& value, Enumeration& into) {
    bool isKnown = false;
    boost::mp11::mp_for_each<boost::describe::describe_enumerators<Enumeration>>([&](auto candidate) {
        if (!value.is_string() || value.get_string() != textOf(candidate.value)) return;
        into = candidate.value;
        isKnown = true;
    });
    return isKnown;
}

template <class Record>
bool readRecord(const json::value& value, Record& into) {
    if (!value.is_object()) return false;
    const json::object& fields = value.get_object();
    const bool isRead = forEachField(into, [&](const std::string& key, auto& field, bool mayBeMissing) {
        using Field = std::remove_cvref_t<decltype(field)>;
        const json::value* const found = fields.if_contains(key);
        if (found == nullptr || found->is_null())
            return mayBeMissing || IsList<Field>::value || IsOptional<Field>::value;
        if constexpr (IsOptional<Field>::value) {
            return read(*found, field.emplace());
        } else {
            return read(*found, field);
        }
    });
    return isRead && Rules<Record>::isPlausible(into);
}

/// False, with `into` half written, for a value of another type, a number that the field cannot hold, a missing key.
/// Numbers count by their value: 5 is a double, and 5.0 an integer.
template <class T>
bool read(const json::value& value, T& into) {
    if constexpr (std::is_same_v<T, bool>) {
        if (value.is_bool()) into = value.get_bool();
        return value.is_bool();
    } else if constexpr (std::is_same_v<T, std::string>) {
        if (value.is_string()) into = std::string_view(value.get_string());
        return value.is_string();
    } else if constexpr (std::is_enum_v<T>) {
        return readEnumeration(value, into);
    } else if constexpr (std::is_floating_point_v<T>) {
        boost::system::error_code error;
        into = value.to_number<T>(error);
        return !error && std::isfinite(into);
    } else if constexpr (std::is_integral_v<T>) {
        boost::system::error_code error;
        into = value.to_number<T>(error);
        return !error;
    } else if constexpr (IsList<T>::value) {
        return readList(value, into);
    } else {
        return readRecord(value, into);
    }
}

}  // namespace skein::JSONRecord
