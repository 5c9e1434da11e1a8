#include "app/client/WatchRun.h"

#include "app/Command.h"
#include "public/common/ErrorText.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/parse.hpp>

#include <stop_token>
#include <utility>

namespace skein {

WatchRun::WatchRun(DaemonClient& daemon, const Interrupt& interrupt, MakeOutput makeOutput)
    : interrupt_(interrupt),
      makeOutput_(std::move(makeOutput)),
      strand_(asio::make_strand(daemon.pools().io())),
      over_(strand_),
      socket_(strand_, clock_, resolver_, daemon.eventStream()),
      tasks_(strand_) {}

WatchRun::~WatchRun() = default;

void WatchRun::run() {
    {
        const std::stop_callback onInterrupt(interrupt_.token(),
                                             [this] { asio::post(strand_, [this] { end(nullptr); }); });
        asio::co_spawn(strand_, runAll(), asio::use_future).get();
    }
    // A wake-up that was posted at the last moment still uses what goes with us.
    asio::post(strand_, asio::use_future).get();
    if (failure_ && interrupt_.exitStatus() == 0) std::rethrow_exception(failure_);
}

asio::awaitable<void> WatchRun::runAll() {
    tasks_.spawn(follow());
    while (!isOver_) co_await over_.wait();
    co_await tasks_.stop();
    if (output_) co_await output_->stop();
    co_await socket_.stop();
}

/// The first end counts.
void WatchRun::end(std::exception_ptr failure) {
    if (std::exchange(isOver_, true)) return;
    failure_ = std::move(failure);
    over_.notify();
}

asio::awaitable<void> WatchRun::follow() {
    std::exception_ptr failure;
    try {
        co_await receive();
    } catch (const WebSocketException& error) {
        if (error.error == WebSocketError::cannotConnect) {
            failure = std::make_exception_ptr(NoDaemon());
        } else if (output_) {
            failure = std::make_exception_ptr(CommandFailure("watch", "the daemon has gone"));
        } else {
            failure = std::make_exception_ptr(CommandFailure("watch", error.what()));
        }
    } catch (...) {
        failure = std::current_exception();
    }
    end(failure);
}

asio::awaitable<void> WatchRun::receive() {
    co_await socket_.open();
    output_ = makeOutput_(strand_, clock_, [this](std::exception_ptr failure) { end(std::move(failure)); });
    for (;;) {
        const WebSocketMessage message = co_await socket_.receive();
        boost::json::object object = boost::json::parse(message.view()).as_object();
        co_await output_->take(std::move(object));
    }
}

}  // namespace skein
