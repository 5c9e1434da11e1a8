#pragma once

#include "app/client/DaemonClient.h"
#include "app/client/TerminalScreen.h"
#include "app/client/WatchOutput.h"
#include "app/client/WatchView.h"
#include "public/common/Clock.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>

#include <chrono>
#include <set>
#include <string>

namespace skein {

/// `watch` on a terminal: the live table, its keys, and the commands that they give.
///
/// Owner: the run, which awaits `stop()`; the screen outlives it. Thread: the strand.
class WatchScreen final : public WatchOutput {
public:
    /// Between two pictures: many tasks may change at once.
    static constexpr std::chrono::milliseconds interval{40};

    WatchScreen(const Strand& strand, DaemonClient& daemon, Clock& clock, const TerminalScreen& screen, End end);

    asio::awaitable<void> take(boost::json::object message) override;
    asio::awaitable<void> stop() override { return tasks_.stop(); }

private:
    asio::awaitable<void> untilFailure(asio::awaitable<void> work);
    asio::awaitable<void> draw();
    asio::awaitable<void> readKeys();
    asio::awaitable<void> followSize();
    asio::awaitable<void> perform(WatchAction action);
    asio::awaitable<void> ask(WatchAction action);
    void redraw();

    DaemonClient& daemon_;
    Clock& clock_;
    const TerminalScreen& screen_;
    const End end_;
    WatchView view_;
    KeyReader reader_;
    std::set<std::string> busy_;  // tasks on which a command of ours runs
    bool isStale_ = false;
    Notifier stale_;
    asio::posix::stream_descriptor keys_;
    asio::signal_set resized_;
    TaskGroup tasks_;
};

}  // namespace skein
