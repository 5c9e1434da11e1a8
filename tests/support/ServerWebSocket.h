#pragma once

#include "public/common/WebSocketClient.h"
#include "tests/support/SeenHTTPRequest.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <memory>
#include <string>

namespace skein {

/// The server's end of one websocket, which does as the test says. Source: RFC 6455.
///
/// Owner: whoever serves it. Thread: the executor of its socket. All throw boost::system::system_error when the other
/// end is gone.
class ServerWebSocket {
public:
    /// `upgrade` was read from `socket`, and is not answered.
    ServerWebSocket(asio::ip::tcp::socket socket, SeenHTTPRequest upgrade);
    ~ServerWebSocket();

    const SeenHTTPRequest& upgrade() const noexcept { return upgrade_; }
    const std::string& target() const noexcept { return upgrade_.target; }
    std::string header(const std::string& name) const { return upgrade_.header(name); }

    asio::awaitable<void> accept();
    /// Answers the upgrade with that HTTP status instead.
    asio::awaitable<void> refuse(int status);
    asio::awaitable<WebSocketMessage> receive();
    /// Returns when the system has taken it, and all that was posted before.
    asio::awaitable<void> send(WebSocketMessage message);
    /// Goes out by itself, in the order of the calls.
    void post(WebSocketMessage message);
    /// Says goodbye and waits for the other's.
    asio::awaitable<void> close();
    /// Without a goodbye; what waits ends.
    void cut() noexcept;

private:
    struct Stream;
    const SeenHTTPRequest upgrade_;
    const std::shared_ptr<Stream> stream_;
};

}  // namespace skein
