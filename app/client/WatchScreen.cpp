#include "app/client/WatchScreen.h"

#include "public/common/ErrorText.h"
#include "public/common/RunOn.h"

#include <boost/asio/use_awaitable.hpp>

#include <array>
#include <csignal>
#include <utility>

namespace skein {

using Kind = WatchAction::Kind;

WatchScreen::WatchScreen(const Strand& strand, DaemonClient& daemon, Clock& clock, const TerminalScreen& screen,
                         End end)
    : daemon_(daemon),
      clock_(clock),
      screen_(screen),
      end_(std::move(end)),
      stale_(strand),
      keys_(strand, TerminalScreen::openKeys()),
      resized_(strand, SIGWINCH),
      tasks_(strand) {
    tasks_.spawn(untilFailure(draw()));
    tasks_.spawn(untilFailure(readKeys()));
    tasks_.spawn(untilFailure(followSize()));
}

asio::awaitable<void> WatchScreen::take(boost::json::object message) {
    view_.take(message);
    redraw();
    co_return;
}

void WatchScreen::redraw() {
    isStale_ = true;
    stale_.notify();
}

asio::awaitable<void> WatchScreen::untilFailure(asio::awaitable<void> work) {
    std::exception_ptr failure;
    try {
        co_await std::move(work);
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) end_(failure);
}

asio::awaitable<void> WatchScreen::draw() {
    for (;;) {
        while (!isStale_) co_await stale_.wait();
        isStale_ = false;
        const auto [rows, columns] = screen_.size();
        auto work = [this, picture = view_.screen(rows, columns)] { screen_.show(picture); };
        co_await runOn(daemon_.pools().disk(), std::move(work));
        co_await clock_.sleep(interval);
    }
}

asio::awaitable<void> WatchScreen::readKeys() {
    std::array<char, 256> bytes{};
    for (;;) {
        const std::size_t count = co_await keys_.async_read_some(asio::buffer(bytes), asio::use_awaitable);
        for (const Key key : reader_.read({bytes.data(), count})) {
            auto action = view_.press(key);
            if (action && action->kind == Kind::quit) {
                end_(nullptr);
                co_return;
            }
            if (action && busy_.insert(action->infoHash).second) tasks_.spawn(perform(std::move(*action)));
        }
        redraw();
    }
}

asio::awaitable<void> WatchScreen::followSize() {
    for (;;) {
        co_await resized_.async_wait(asio::use_awaitable);
        redraw();
    }
}

asio::awaitable<void> WatchScreen::perform(WatchAction action) {
    const std::string infoHash = action.infoHash;
    try {
        co_await ask(std::move(action));
    } catch (const std::exception& error) {
        view_.say(textOf(error));
        redraw();
    }
    busy_.erase(infoHash);
}

asio::awaitable<void> WatchScreen::ask(WatchAction action) {
    const std::string task = "api/v1/tasks/" + action.infoHash;
    switch (action.kind) {
        case Kind::pause: co_await daemon_.ask("POST", task + "/pause"); break;
        case Kind::resume: co_await daemon_.ask("POST", task + "/resume"); break;
        case Kind::remove: co_await daemon_.ask("DELETE", task); break;
        case Kind::removeWithFiles: co_await daemon_.ask("DELETE", task + "?deleteFiles=true"); break;
        case Kind::quit: break;
    }
}

}  // namespace skein
