#include "app/SettingsWatch.h"

#include "app/SettingCatalogue.h"

#include <utility>

namespace skein {

SettingsWatch::SettingsWatch(const Strand& strand, ActorSettings settings, Clock& clock, FileLogger& log,
                             Handler onChanged)
    : settings_(std::move(settings)), clock_(clock), log_(log), onChanged_(std::move(onChanged)), tasks_(strand) {}

asio::awaitable<void> SettingsWatch::watch() {
    bool hasFailed = false;
    for (;;) {
        try {
            co_await look();
            hasFailed = false;
        } catch (const DatabaseException& error) {
            if (!std::exchange(hasFailed, true)) log_.warning("[Settings] cannot be read: ", error.what());
        }
        co_await clock_.sleep(interval);
    }
}

asio::awaitable<void> SettingsWatch::look() {
    auto readVersion = settings_.with([](SettingsStore& store) { return store.version(); });
    const std::int64_t version = co_await std::move(readVersion);
    if (version == version_) co_return;
    auto readValues = settings_.with(&SettingsWatch::valuesIn);
    const Values values = co_await std::move(readValues);
    version_ = version;
    std::vector<std::string> changed;
    for (const SettingDescription& setting : settingCatalogue()) {
        const std::string key(setting.key);
        const auto before = values_.find(key);
        const auto now = values.find(key);
        const bool wasThere = before != values_.end();
        const bool isThere = now != values.end();
        if (wasThere != isThere || (isThere && before->second != now->second)) changed.push_back(key);
    }
    values_ = values;
    if (!changed.empty()) co_await onChanged_(std::move(changed));
}

SettingsWatch::Values SettingsWatch::valuesIn(SettingsStore& store) {
    Values values = store.list();
    std::erase_if(values, [](const auto& entry) { return findSetting(entry.first) == nullptr; });
    return values;
}

}  // namespace skein
