#include "app/api/ServerSocket.h"

#include "public/common/Within.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <exception>
#include <utility>

namespace skein {

namespace {

namespace websocket = boost::beast::websocket;

/// A long list goes out in frames of this size, between which pings find room.
constexpr std::size_t frameBytes = 65'536;

}  // namespace

struct ServerSocket::Stream {
    explicit Stream(asio::ip::tcp::socket from) : socket(std::move(from)) {}

    websocket::stream<asio::ip::tcp::socket, false> socket;  // compression is never accepted
    boost::beast::flat_buffer incoming;
};

ServerSocket::ServerSocket(asio::ip::tcp::socket socket, Clock& clock)
    : clock_(clock), lastHeard_(clock.now()), stream_(std::make_unique<Stream>(std::move(socket))) {
    stream_->socket.read_message_max(maxIncomingBytes);
    stream_->socket.write_buffer_bytes(frameBytes);
    stream_->socket.control_callback(
        [this](websocket::frame_type, boost::beast::string_view) { lastHeard_ = clock_.now(); });
}

ServerSocket::~ServerSocket() = default;

void ServerSocket::cut() noexcept {
    boost::system::error_code ignored;
    stream_->socket.next_layer().close(ignored);
}

asio::awaitable<void> ServerSocket::serve(std::string head, Conversation conversation) {
    co_await within(clock_, patience, upgrade(std::move(head)));
    boost::system::error_code ignored;
    stream_->socket.next_layer().set_option(asio::ip::tcp::no_delay(true), ignored);
    lastHeard_ = clock_.now();
    const auto executor = co_await asio::this_coro::executor;
    auto all = asio::experimental::make_parallel_group(
        asio::co_spawn(executor, cutAfter(speak(std::move(conversation))), asio::deferred),
        asio::co_spawn(executor, cutAfter(ignoreMessages()), asio::deferred),
        asio::co_spawn(executor, cutAfter(watchForLife()), asio::deferred));
    const auto [order, spoken, read, watched] =
        co_await all.async_wait(asio::experimental::wait_for_one(), asio::use_awaitable);
    const std::exception_ptr failures[] = {spoken, read, watched};
    if (failures[order[0]]) std::rethrow_exception(failures[order[0]]);
}

asio::awaitable<void> ServerSocket::upgrade(std::string head) {
    co_await stream_->socket.async_accept(asio::buffer(head), asio::use_awaitable);
}

/// The first to end closes the socket, so that the others do not wait for it inside of the websocket.
asio::awaitable<void> ServerSocket::cutAfter(asio::awaitable<void> work) {
    std::exception_ptr failure;
    try {
        co_await std::move(work);
    } catch (...) {
        failure = std::current_exception();
    }
    cut();
    if (failure) std::rethrow_exception(failure);
}

asio::awaitable<void> ServerSocket::speak(Conversation conversation) {
    asio::awaitable<void> words = conversation(*this);
    co_await std::move(words);
}

asio::awaitable<void> ServerSocket::ignoreMessages() {
    for (;;) {
        co_await stream_->socket.async_read(stream_->incoming, asio::use_awaitable);
        stream_->incoming.clear();
        lastHeard_ = clock_.now();
    }
}

asio::awaitable<void> ServerSocket::watchForLife() {
    for (;;) {
        co_await clock_.sleep(pingInterval);
        const Clock::Duration left = lastHeard_ + patience - clock_.now();
        if (left <= Clock::Duration::zero()) throw TimeLimitExceeded();
        co_await within(clock_, left, ping());
    }
}

asio::awaitable<void> ServerSocket::ping() {
    const websocket::ping_data nothing;
    co_await stream_->socket.async_ping(nothing, asio::use_awaitable);
}

asio::awaitable<void> ServerSocket::send(std::string text) {
    stream_->socket.text(true);
    co_await stream_->socket.async_write(asio::buffer(text), asio::use_awaitable);
}

}  // namespace skein
