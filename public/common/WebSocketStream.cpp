#include "public/common/WebSocketStream.h"

#include "public/common/IPAddress.h"
#include "public/common/WebSocketError.h"

#include <boost/asio/redirect_error.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/ssl/host_name_verification.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/role.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/beast/websocket/teardown.hpp>
#include <openssl/ssl.h>

#include <optional>
#include <utility>

namespace skein {

namespace {

namespace websocket = boost::beast::websocket;
namespace ssl = asio::ssl;
using asio::ip::tcp;

/// Masked and written at once: the library's 4 KiB would cost a system call and a frame each.
constexpr std::size_t writeBufferBytes = std::size_t{64} << 10U;

/// The system's certificates, read once for the program.
ssl::context& trust() {
    static ssl::context context = [] {
        ssl::context made(ssl::context::tls_client);
        made.set_default_verify_paths();
        made.set_verify_mode(ssl::verify_peer);
        return made;
    }();
    return context;
}

/// The connection to a server that a websocket runs over, with TLS or without. One type for both: the websocket's
/// operations are the heaviest templates that we have, and so they are compiled once.
class Transport {
public:
    using executor_type = tcp::socket::executor_type;

    explicit Transport(const asio::any_io_executor& strand) : socket_(strand) {}

    executor_type get_executor() noexcept { return socket_.get_executor(); }
    tcp::socket& socket() noexcept { return socket_; }
    asio::awaitable<void> secureAs(std::string host) {
        tls_.emplace(socket_, trust());
        if (!IPAddress::parse(host)) SSL_set_tlsext_host_name(tls_->native_handle(), host.c_str());
        tls_->set_verify_callback(ssl::host_name_verification(host));
        co_await tls_->async_handshake(ssl::stream_base::client, asio::use_awaitable);
    }

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
    friend void async_teardown(boost::beast::role_type role, Transport& transport, Handler&& handler) {
        using boost::beast::websocket::async_teardown;
        if (transport.tls_) {
            async_teardown(role, *transport.tls_, std::forward<Handler>(handler));
        } else {
            async_teardown(role, transport.socket_, std::forward<Handler>(handler));
        }
    }

    friend void beast_close_socket(Transport& transport) {
        boost::system::error_code ignored;
        transport.socket_.close(ignored);
    }

private:
    tcp::socket socket_;
    std::optional<ssl::stream<tcp::socket&>> tls_;
};

}  // namespace

struct WebSocketStream::Parts {
    explicit Parts(const Strand& strand) : socket(strand) {}

    websocket::stream<Transport, false> socket;  // compression is never offered
    boost::beast::flat_buffer incoming;
};

WebSocketStream::WebSocketStream(const Strand& strand, std::size_t maxMessageBytes)
    : parts_(std::make_unique<Parts>(strand)) {
    parts_->socket.read_message_max(maxMessageBytes);
    parts_->socket.write_buffer_bytes(writeBufferBytes);
}

WebSocketStream::~WebSocketStream() = default;

tcp::socket& WebSocketStream::socket() noexcept { return parts_->socket.next_layer().socket(); }

asio::awaitable<void> WebSocketStream::secureAs(std::string host) {
    return parts_->socket.next_layer().secureAs(std::move(host));
}

asio::awaitable<void> WebSocketStream::upgrade(std::string authority, std::string path,
                                               std::vector<HTTPHeader> headers) {
    parts_->socket.set_option(websocket::stream_base::decorator([&headers](websocket::request_type& request) {
        for (const HTTPHeader& header : headers) request.set(header.name, header.value);
    }));
    websocket::response_type response;
    boost::system::error_code error;
    co_await parts_->socket.async_handshake(response, authority, path,
                                            asio::redirect_error(asio::use_awaitable, error));
    if (error == websocket::condition::handshake_failed)
        throw WebSocketException(WebSocketError::refused, "HTTP " + std::to_string(response.result_int()));
    if (error) throw boost::system::system_error(error);
}

asio::awaitable<WebSocketMessage> WebSocketStream::read() {
    const std::size_t size = co_await parts_->socket.async_read(parts_->incoming, asio::use_awaitable);
    const auto* begin = static_cast<const std::uint8_t*>(parts_->incoming.data().data());
    WebSocketMessage message{parts_->socket.got_text(), Bytes(begin, begin + size)};
    parts_->incoming.consume(size);
    co_return message;
}

asio::awaitable<void> WebSocketStream::write(WebSocketMessage message) {
    parts_->socket.text(message.isText);
    co_await parts_->socket.async_write(asio::buffer(message.data), asio::use_awaitable);
}

asio::awaitable<void> WebSocketStream::close() {
    co_await parts_->socket.async_close(websocket::close_code::normal, asio::use_awaitable);
}

}  // namespace skein
