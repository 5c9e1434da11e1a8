#pragma once

#include "public/common/Clock.h"
#include "public/common/ResidentMemory.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace skein {

/// Watches this process's memory while sessions run, and calls for relief when it is above a limit.
///
/// Owner: the manager, whose strand it shares. Thread: that strand; memory is measured on `disk`.
class MemoryMonitor {
public:
    /// Gets the footprint as users read it ("812MB").
    using Handler = std::function<void(const std::string& footprint)>;
    using Measure = std::function<std::int64_t()>;

    static constexpr std::chrono::seconds checkInterval{5};
    /// Relief takes a while to show; called again sooner, it would cost what the first call spared.
    static constexpr std::chrono::seconds reliefInterval{30};
    static constexpr std::int64_t bytesInMB = std::int64_t{1} << 20U;

    /// `limitMB` 0 or below: no limit.
    MemoryMonitor(const Strand& main, asio::any_io_executor disk, Clock& clock, std::int64_t limitMB, Handler handler,
                  Measure measure = residentMemoryBytes);

    void setLimit(std::int64_t limitMB);
    /// While none runs, nothing wakes up.
    void setRunningSessions(std::size_t count);
    asio::awaitable<void> stop();

    /// "%.0fMB"
    static std::string format(std::int64_t bytes);

private:
    void watchIfNeeded();
    asio::awaitable<void> watch();

    const asio::any_io_executor disk_;
    Clock& clock_;
    std::int64_t limitBytes_;
    const Handler handler_;
    const Measure measure_;
    std::size_t runningSessions_ = 0;
    bool isWatching_ = false;
    TaskGroup tasks_;
};

}  // namespace skein
