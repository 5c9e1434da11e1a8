#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/json/object.hpp>

#include <exception>
#include <functional>

namespace skein {

namespace asio = boost::asio;

/// Where `watch` shows what the daemon tells. Thread: the strand of the run.
class WatchOutput {
public:
    /// To be called when it is over: null when the user wants that.
    using End = std::function<void(std::exception_ptr)>;

    WatchOutput() = default;
    WatchOutput(const WatchOutput&) = delete;
    WatchOutput& operator=(const WatchOutput&) = delete;
    virtual ~WatchOutput() = default;

    /// The next message. The one after it waits until this returns.
    virtual asio::awaitable<void> take(boost::json::object message) = 0;
    /// Returns when nothing of it runs any more.
    virtual asio::awaitable<void> stop() = 0;
};

}  // namespace skein
