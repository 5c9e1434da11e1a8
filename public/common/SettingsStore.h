#pragma once

#include "public/common/Bytes.h"
#include "public/common/Database.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace skein {

/// What a key of the settings holds.
using SettingValue = std::variant<bool, std::int64_t, double, std::string, Bytes>;

/// `value` as a user reads it: true or false, decimal digits, the text itself, hex digits.
std::string describe(const SettingValue& value);

/// The program's settings: named values that survive restarts, shared by all processes of one user.
///
/// Nothing is cached: a read sees what another process wrote. A write is on the disk when it returns, whole or not
/// at all, also when the process or the machine dies. A damaged file is set aside (see Database): the settings then
/// start empty.
/// Thread: any but those of the `io` pool, as every call waits for the disk. Actors use ActorSettings.
/// All operations throw DatabaseException.
class SettingsStore {
public:
    /// `log` outlives the store.
    SettingsStore(const std::filesystem::path& file, FileLogger& log);

    std::optional<SettingValue> get(std::string_view key);
    void set(std::string_view key, const SettingValue& value);
    /// False when there was nothing to remove.
    bool unset(std::string_view key);
    /// All keys and values, in the keys' order.
    std::map<std::string, SettingValue> list();

    /// Another number than before once another process has written. A cheap call: nothing is read from the disk.
    std::int64_t version();

    /// Replaces the value by what `change` makes of it (nothing removes it); no other writer comes in between, in
    /// this process or another. `change` does not use the store.
    using Change = std::function<std::optional<SettingValue>(std::optional<SettingValue> before)>;
    void update(std::string_view key, const Change& change);

    // Typed reads. Users type settings as text, so a text that reads as the type counts ("8080", "true", "no");
    // a value of another type is as good as none.
    std::optional<std::string> text(std::string_view key);
    std::optional<std::int64_t> number(std::string_view key);
    std::optional<bool> flag(std::string_view key);
    std::optional<Bytes> bytes(std::string_view key);

private:
    Database database_;
};

}  // namespace skein
