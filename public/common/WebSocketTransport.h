#pragma once

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/beast/core/role.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/teardown.hpp>

#include <optional>
#include <string>
#include <utility>

namespace skein {

namespace asio = boost::asio;

/// The connection to a server that a websocket runs over, with TLS or without. One type for both: the websocket's
/// operations are the heaviest templates that we have, and so they are compiled once.
///
/// Owner: the websocket's stream. Thread: the strand that it was made for.
class WebSocketTransport {
public:
    using executor_type = asio::ip::tcp::socket::executor_type;

    explicit WebSocketTransport(const asio::any_io_executor& strand) : socket_(strand) {}

    executor_type get_executor() noexcept { return socket_.get_executor(); }
    asio::ip::tcp::socket& socket() noexcept { return socket_; }
    /// Everything is encrypted from here on, for a server that proves to be `host` by what `trust` accepts. Throws
    /// boost::system::system_error.
    asio::awaitable<void> secureAs(std::string host, asio::ssl::context& trust);

    // What the websocket's operations call; `handler` is one of theirs.
    template <class Buffers, class Handler>
    void async_read_some(const Buffers& buffers, Handler&& handler) {
        if (tls_) {
            tls_->async_read_some(buffers, std::forward<Handler>(handler));
        } else {
            socket_.async_read_some(buffers, std::forward<Handler>(handler));
        }
    }
    template <class Buffers, class Handler>
    void async_write_some(const Buffers& buffers, Handler&& handler) {
        if (tls_) {
            tls_->async_write_some(buffers, std::forward<Handler>(handler));
        } else {
            socket_.async_write_some(buffers, std::forward<Handler>(handler));
        }
    }
    template <class Handler>
    friend void async_teardown(boost::beast::role_type role, WebSocketTransport& transport, Handler&& handler) {
        using boost::beast::websocket::async_teardown;
        if (transport.tls_) {
            async_teardown(role, *transport.tls_, std::forward<Handler>(handler));
        } else {
            async_teardown(role, transport.socket_, std::forward<Handler>(handler));
        }
    }

    friend void beast_close_socket(WebSocketTransport& transport) {
        boost::system::error_code ignored;
        transport.socket_.close(ignored);
    }

private:
    asio::ip::tcp::socket socket_;
    std::optional<asio::ssl::stream<asio::ip::tcp::socket&>> tls_;
};

}  // namespace skein
