#include "downloads/MemoryMonitor.h"

#include "public/common/RunOn.h"

#include <array>
#include <cstdio>
#include <optional>
#include <utility>

namespace skein {

namespace {

/// More than there can be, where there is no limit.
std::int64_t limitInBytes(std::int64_t limitMB) {
    const bool isLimit = limitMB > 0 && limitMB < INT64_MAX / MemoryMonitor::bytesInMB;
    return isLimit ? limitMB * MemoryMonitor::bytesInMB : INT64_MAX;
}

}  // namespace

MemoryMonitor::MemoryMonitor(const Strand& main, asio::any_io_executor disk, Clock& clock, std::int64_t limitMB,
                             Handler handler, Measure measure)
    : disk_(std::move(disk)),
      clock_(clock),
      limitBytes_(limitInBytes(limitMB)),
      handler_(std::move(handler)),
      measure_(std::move(measure)),
      tasks_(main) {}

void MemoryMonitor::setRunningSessions(std::size_t count) {
    runningSessions_ = count;
    watchIfNeeded();
}

void MemoryMonitor::setLimit(std::int64_t limitMB) {
    limitBytes_ = limitInBytes(limitMB);
    watchIfNeeded();
}

void MemoryMonitor::watchIfNeeded() {
    if (runningSessions_ == 0 || limitBytes_ == INT64_MAX || tasks_.isStopping() || std::exchange(isWatching_, true))
        return;
    tasks_.spawn(watch());
}

asio::awaitable<void> MemoryMonitor::watch() {
    std::optional<Clock::TimePoint> lastRelief;
    for (;;) {
        co_await clock_.sleep(checkInterval);
        if (runningSessions_ == 0 || limitBytes_ == INT64_MAX) break;
        auto measuring = runOn(disk_, measure_);
        const std::int64_t bytes = co_await std::move(measuring);
        if (bytes <= limitBytes_ || (lastRelief && clock_.now() - *lastRelief < reliefInterval)) continue;
        lastRelief = clock_.now();
        handler_(format(bytes));
    }
    isWatching_ = false;
}

asio::awaitable<void> MemoryMonitor::stop() { return tasks_.stop(); }

std::string MemoryMonitor::format(std::int64_t bytes) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.0fMB", static_cast<double>(bytes) / static_cast<double>(bytesInMB));
    return text.data();
}

}  // namespace skein
