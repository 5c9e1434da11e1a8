#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace skein {

/// What a value of a setting has to be.
enum class SettingKind : std::uint8_t {
    choice,
    flag,
    number,
    rate,
    folder,
    url,
    address,
    addresses,
    trackers,
    cacheSites
};

/// When a running daemon goes by a new value.
enum class SettingEffect : std::uint8_t { atOnce, forNewTasks, afterRestart };

/// A setting that users may change.
struct SettingDescription {
    std::string_view key;
    SettingKind kind;
    std::string_view choices;   ///< of a choice, separated by ", "
    std::string_view standard;  ///< what holds while it is not set, as users read it
    SettingEffect effect;
    std::string_view meaning;

    /// "true or false", "paid, free or disabled", …
    std::string allowed() const;
    /// Whether `value` may be given to the setting.
    bool allows(std::string_view value) const;
};

/// Every setting that users may change. What else is in the store the program keeps for itself.
std::span<const SettingDescription> settingCatalogue() noexcept;
/// Null for a key that is not in the catalogue.
const SettingDescription* findSetting(std::string_view key) noexcept;

}  // namespace skein
