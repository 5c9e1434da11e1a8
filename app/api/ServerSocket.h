#pragma once

#include "public/common/Clock.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace skein {

namespace asio = boost::asio;

/// A client's websocket that only speaks: what the client says is read and forgotten. Source: RFC 6455.
///
/// A client that takes nothing, and so no ping either, or answers none, is dropped after `patience`.
/// Owner: the connection that became it. Thread: the executor of its socket.
class ServerSocket {
public:
    /// The longest message of a client that is read and forgotten; a longer one ends the websocket.
    static constexpr std::size_t maxIncomingBytes = 4096;
    static constexpr std::chrono::seconds pingInterval{10};
    static constexpr std::chrono::seconds patience{30};

    /// Says what there is to say, until it throws or returns: then the websocket is closed. It is cancelled when the
    /// client leaves.
    using Conversation = std::function<asio::awaitable<void>(ServerSocket&)>;

    ServerSocket(asio::ip::tcp::socket socket, Clock& clock);
    ~ServerSocket();

    /// Answers the upgrade whose head, up to its empty line, is `head`, and holds `conversation`. Returns or throws
    /// when the websocket is closed.
    asio::awaitable<void> serve(std::string head, Conversation conversation);
    /// Sends one text message; a client that takes it slowly is waited for. One call at a time. Throws
    /// boost::system::system_error when the client is gone.
    asio::awaitable<void> send(std::string text);

private:
    struct Stream;

    asio::awaitable<void> upgrade(std::string head);
    asio::awaitable<void> ignoreMessages();
    asio::awaitable<void> watchForLife();
    asio::awaitable<void> ping();
    asio::awaitable<void> speak(Conversation conversation);
    asio::awaitable<void> cutAfter(asio::awaitable<void> work);
    void cut() noexcept;

    Clock& clock_;
    Clock::TimePoint lastHeard_;
    const std::unique_ptr<Stream> stream_;
};

}  // namespace skein
