#pragma once

#include "chat/ChangeCount.h"
#include "chat/ClientStatus.h"
#include "chat/ReconnectDelay.h"
#include "public/common/FileLogger.h"
#include "public/common/TaskGroup.h"
#include "public/common/WebSocketClient.h"

#include <boost/json/object.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace skein {

/// One lasting websocket to the chat server: opened, kept alive with pings, given up when the server falls silent, and
/// opened again with a growing delay until it is no longer wanted.
///
/// A server is dead when nothing came from it for `silenceLimit`, in which it was pinged.
/// Owner: the chat client, which awaits `stop()`. Thread: the client's strand.
class ChatLink {
public:
    static constexpr std::chrono::seconds heartbeatPeriod{30};
    static constexpr std::chrono::seconds silenceLimit{90};
    /// A larger frame ends the connection.
    static constexpr std::size_t maxFrameBytes = std::size_t{1} << 20U;

    /// What the link belongs to. Called on the strand.
    class Owner {
    public:
        Owner() = default;
        Owner(const Owner&) = delete;
        Owner& operator=(const Owner&) = delete;
        virtual ~Owner() = default;

        /// What to send first. Nothing: nobody is signed in, and the link stays closed. What it throws fails the
        /// attempt.
        virtual asio::awaitable<std::optional<boost::json::object>> firstRequest() = 0;
        /// One frame with a "cmd". The next one is not read before it returns. Throws nothing but the end by
        /// cancellation.
        virtual asio::awaitable<void> frameCame(boost::json::object frame) = 0;
        /// `disconnected`, `connecting` or `connected`.
        virtual void linkChanged(ClientStatus status) = 0;
    };

    ChatLink(const Strand& strand, Clock& clock, WayOut way, FileLogger& log, Owner& owner);

    /// Remembers `wsUrl` and connects, in place of what is open now.
    void connect(std::string wsUrl);
    /// Closes after `delay`, in place of an earlier order to close.
    void disconnect(std::chrono::seconds delay);
    void cancelDisconnect() noexcept { ++disconnectOrder_; }
    /// Connects now when the link is closed, or waits before its next attempt. Nothing when it never had a URL.
    void checkConnect();

    std::int64_t nextSeq() noexcept { return ++seq_; }
    /// Sends `request` with that "seq" as its last key. False when the link is not open, breaks meanwhile, or the
    /// request is not UTF-8 or too large.
    asio::awaitable<bool> send(boost::json::object request, std::int64_t seq);
    /// The server has let us in: the next lost connection is followed by the shortest delay.
    void resetDelay() noexcept { delay_.reset(); }

    /// Returns when nothing of the link runs any more. Thread: any.
    asio::awaitable<void> stop();

private:
    asio::awaitable<void> shutDown();
    asio::awaitable<void> run();
    asio::awaitable<void> keepOpen();
    asio::awaitable<void> converse(std::shared_ptr<WebSocketClient> socket);
    asio::awaitable<void> hold();
    asio::awaitable<void> ping();
    asio::awaitable<void> waitBeforeRetry();
    asio::awaitable<void> disconnectLater(std::chrono::seconds delay, std::uint64_t order);
    void disconnectNow();

    Clock& clock_;
    const WayOut way_;
    FileLogger& log_;
    Owner& owner_;
    std::string url_;
    bool isWanted_ = false;
    bool isReplaced_ = false;  ///< by another URL: this connection ends, the next comes without delay
    bool isHurried_ = false;   ///< the wait before the next attempt ends
    bool isRunning_ = false;
    bool isConversing_ = false;
    bool isOpen_ = false;
    std::string failure_;
    std::uint64_t disconnectOrder_ = 0;  ///< an older order to close is void
    std::int64_t seq_ = 0;
    Clock::TimePoint lastHeard_;
    ReconnectDelay delay_;
    ChangeCount changes_;
    std::shared_ptr<WebSocketClient> socket_;
    TaskGroup tasks_;
};

}  // namespace skein
