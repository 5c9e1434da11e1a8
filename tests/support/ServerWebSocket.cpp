#include "tests/support/ServerWebSocket.h"

#include "public/common/Notifier.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/system/system_error.hpp>

#include <deque>
#include <utility>

namespace skein {

namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;

struct ServerWebSocket::Stream : std::enable_shared_from_this<Stream> {
    explicit Stream(asio::ip::tcp::socket from) : socket(std::move(from)) {}

    void sendFirst() {
        socket.text(waiting.front().isText);
        socket.async_write(asio::buffer(waiting.front().data),
                           [self = shared_from_this()](const boost::system::error_code& result, std::size_t) {
                               self->error = result;
                               self->waiting.pop_front();
                               if (result) self->waiting.clear();
                               if (!self->waiting.empty()) self->sendFirst();
                               self->sent.notify();
                           });
    }

    websocket::stream<asio::ip::tcp::socket> socket;
    boost::beast::flat_buffer buffer;
    std::deque<WebSocketMessage> waiting;
    boost::system::error_code error;
    Notifier sent{socket.get_executor()};
};

ServerWebSocket::ServerWebSocket(asio::ip::tcp::socket socket, SeenHTTPRequest upgrade)
    : upgrade_(std::move(upgrade)), stream_(std::make_shared<Stream>(std::move(socket))) {}

ServerWebSocket::~ServerWebSocket() { cut(); }

asio::awaitable<void> ServerWebSocket::accept() {
    http::request<http::empty_body> request(http::verb::get, upgrade_.target, 11);
    for (const auto& [name, value] : upgrade_.headers) request.insert(name, value);
    co_await stream_->socket.async_accept(request, asio::use_awaitable);
}

asio::awaitable<void> ServerWebSocket::refuse(int status) {
    const std::string answer = "HTTP/1.1 " + std::to_string(status) + " Refused\r\nContent-Length: 0\r\n\r\n";
    co_await asio::async_write(stream_->socket.next_layer(), asio::buffer(answer), asio::use_awaitable);
}

asio::awaitable<WebSocketMessage> ServerWebSocket::receive() {
    const std::size_t size = co_await stream_->socket.async_read(stream_->buffer, asio::use_awaitable);
    const auto* begin = static_cast<const std::uint8_t*>(stream_->buffer.data().data());
    WebSocketMessage message{stream_->socket.got_text(), Bytes(begin, begin + size)};
    stream_->buffer.consume(size);
    co_return message;
}

asio::awaitable<void> ServerWebSocket::send(WebSocketMessage message) {
    const auto stream = stream_;  // whoever serves this end may leave meanwhile
    post(std::move(message));
    while (!stream->waiting.empty()) co_await stream->sent.wait();
    if (stream->error) throw boost::system::system_error(stream->error);
}

void ServerWebSocket::post(WebSocketMessage message) {
    if (stream_->error) return;
    stream_->waiting.push_back(std::move(message));
    if (stream_->waiting.size() == 1) stream_->sendFirst();
}

asio::awaitable<void> ServerWebSocket::close() {
    co_await stream_->socket.async_close(websocket::close_code::normal, asio::use_awaitable);
}

void ServerWebSocket::cut() noexcept {
    boost::system::error_code ignored;
    stream_->socket.next_layer().close(ignored);
}

}  // namespace skein
