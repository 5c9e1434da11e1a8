#pragma once

#include "public/common/ActorSettings.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace skein {

/// Notices that another process has changed settings.
///
/// Owner: the daemon, which awaits `stop()` before what `onChanged` uses goes. Thread: the strand given.
class SettingsWatch {
public:
    /// Whoever changes a setting expects it to be in force within a second.
    static constexpr std::chrono::milliseconds interval{500};

    /// Is told the keys whose values are others than before; the first time those that have one.
    using Handler = std::function<asio::awaitable<void>(std::vector<std::string> keys)>;

    SettingsWatch(const Strand& strand, ActorSettings settings, Clock& clock, FileLogger& log, Handler onChanged);

    void start() { tasks_.spawn(watch()); }
    asio::awaitable<void> stop() { return tasks_.stop(); }

private:
    using Values = std::map<std::string, SettingValue>;

    asio::awaitable<void> watch();
    asio::awaitable<void> look();
    static Values valuesIn(SettingsStore& store);

    const ActorSettings settings_;
    Clock& clock_;
    FileLogger& log_;
    const Handler onChanged_;
    std::int64_t version_ = -1;
    Values values_;
    TaskGroup tasks_;
};

}  // namespace skein
