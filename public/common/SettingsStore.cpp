#include "public/common/SettingsStore.h"

#include <charconv>
#include <type_traits>
#include <utility>

namespace skein {

namespace {

// SQLite has no booleans, so a column tells them from numbers. `value` has no type of its own: what is written comes
// back as it was.
constexpr const char* schema =
    "CREATE TABLE IF NOT EXISTS settings(key TEXT PRIMARY KEY NOT NULL, value NOT NULL, isFlag INTEGER NOT NULL)";
constexpr std::string_view select = "SELECT value, isFlag FROM settings WHERE key = ?";
constexpr std::string_view replace = "REPLACE INTO settings(key, value, isFlag) VALUES(?, ?, ?)";
constexpr std::string_view remove = "DELETE FROM settings WHERE key = ?";

DatabaseValue keyValue(std::string_view key) { return std::string(key); }

std::vector<DatabaseValue> toRow(std::string_view key, const SettingValue& setting) {
    const auto* flag = std::get_if<bool>(&setting);
    DatabaseValue value = std::visit(
        [](const auto& typed) -> DatabaseValue {
            if constexpr (std::is_same_v<std::decay_t<decltype(typed)>, bool>) {
                return std::int64_t{typed ? 1 : 0};
            } else {
                return typed;
            }
        },
        setting);
    return {keyValue(key), std::move(value), std::int64_t{flag != nullptr ? 1 : 0}};
}

std::optional<SettingValue> fromColumns(DatabaseValue value, const DatabaseValue& isFlag) {
    return std::visit(
        [&](auto&& typed) -> std::optional<SettingValue> {
            using Type = std::decay_t<decltype(typed)>;
            if constexpr (std::is_same_v<Type, std::monostate>) {
                return std::nullopt;
            } else if constexpr (std::is_same_v<Type, std::int64_t>) {
                if (isFlag == DatabaseValue(std::int64_t{1})) return SettingValue(typed != 0);
                return SettingValue(typed);
            } else {
                return SettingValue(std::forward<decltype(typed)>(typed));
            }
        },
        std::move(value));
}

std::optional<SettingValue> firstOf(std::vector<DatabaseRow> rows) {
    if (rows.empty()) return std::nullopt;
    return fromColumns(std::move(rows[0][0]), rows[0][1]);
}

template <class Type>
std::optional<Type> as(std::optional<SettingValue> value) {
    if (!value || !std::holds_alternative<Type>(*value)) return std::nullopt;
    return std::get<Type>(std::move(*value));
}

}  // namespace

std::string describe(const SettingValue& value) {
    return std::visit(
        [](const auto& typed) -> std::string {
            using Type = std::decay_t<decltype(typed)>;
            if constexpr (std::is_same_v<Type, bool>) {
                return typed ? "true" : "false";
            } else if constexpr (std::is_arithmetic_v<Type>) {
                std::array<char, 32> digits{};  // the shortest that reads back as the same number
                return {digits.data(), std::to_chars(digits.data(), digits.data() + digits.size(), typed).ptr};
            } else if constexpr (std::is_same_v<Type, Bytes>) {
                return toHex(typed);
            } else {
                return typed;
            }
        },
        value);
}

SettingsStore::SettingsStore(const std::filesystem::path& file, FileLogger& log) : database_(file, schema, log) {}

std::optional<SettingValue> SettingsStore::get(std::string_view key) {
    return firstOf(database_.run(select, {keyValue(key)}));
}

void SettingsStore::set(std::string_view key, const SettingValue& value) { database_.run(replace, toRow(key, value)); }

bool SettingsStore::unset(std::string_view key) {
    return !database_.run("DELETE FROM settings WHERE key = ? RETURNING 1", {keyValue(key)}).empty();
}

std::map<std::string, SettingValue> SettingsStore::list() {
    std::map<std::string, SettingValue> settings;
    for (DatabaseRow& row : database_.run("SELECT key, value, isFlag FROM settings")) {
        auto value = fromColumns(std::move(row[1]), row[2]);
        if (value) settings.emplace(std::get<std::string>(std::move(row[0])), *std::move(value));
    }
    return settings;
}

std::int64_t SettingsStore::version() {
    return std::get<std::int64_t>(database_.run("PRAGMA data_version").at(0).at(0));
}

void SettingsStore::update(std::string_view key, const Change& change) {
    database_.transaction([&](const Database::Run& run) {
        const auto after = change(firstOf(run(select, {keyValue(key)})));
        if (after) {
            run(replace, toRow(key, *after));
        } else {
            run(remove, {keyValue(key)});
        }
    });
}

std::optional<std::string> SettingsStore::text(std::string_view key) { return as<std::string>(get(key)); }

std::optional<Bytes> SettingsStore::bytes(std::string_view key) { return as<Bytes>(get(key)); }

std::optional<std::int64_t> SettingsStore::number(std::string_view key) {
    const auto value = get(key);
    if (!value) return std::nullopt;
    const auto* typed = std::get_if<std::string>(&*value);
    if (typed == nullptr) return as<std::int64_t>(value);
    std::int64_t number = 0;
    const char* const end = typed->data() + typed->size();
    const auto result = std::from_chars(typed->data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return number;
}

std::optional<bool> SettingsStore::flag(std::string_view key) {
    const auto value = get(key);
    if (!value) return std::nullopt;
    if (const auto* number = std::get_if<std::int64_t>(&*value)) return *number != 0;
    const auto* typed = std::get_if<std::string>(&*value);
    if (typed == nullptr) return as<bool>(value);
    for (const char* yes : {"true", "yes", "on", "1"})
        if (*typed == yes) return true;
    for (const char* no : {"false", "no", "off", "0"})
        if (*typed == no) return false;
    return std::nullopt;
}

}  // namespace skein
