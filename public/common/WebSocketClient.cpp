#include "public/common/WebSocketClient.h"

#include "public/common/AsioAddress.h"
#include "public/common/BoundSocket.h"
#include "public/common/ErrorText.h"
#include "public/common/ShownURL.h"
#include "public/common/WebSocketStream.h"
#include "public/common/Within.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>
#include <boost/url/parse.hpp>

#include <charconv>
#include <system_error>
#include <utility>

namespace skein {

namespace {

using asio::ip::tcp;

struct Target {
    bool isSecure = false;
    std::string host;  // a name or a literal without brackets
    std::uint16_t port = 0;
    std::string authority;  // as the Host header wants it
    std::string path;       // and the query
};

Target targetOf(const std::string& url) {
    const auto parsed = boost::urls::parse_uri(url);
    if (!parsed) throw WebSocketException(WebSocketError::invalidURL, shownURL(url));
    Target target;
    target.isSecure = parsed->scheme() == "wss";
    std::uint16_t port = target.isSecure ? 443 : 80;
    const std::string digits = parsed->port();
    bool isPortGood = true;
    if (!digits.empty()) {
        const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), port);
        isPortGood = error == std::errc() && end == digits.data() + digits.size() && port != 0;
    }
    if ((!target.isSecure && parsed->scheme() != "ws") || parsed->host().empty() || !isPortGood)
        throw WebSocketException(WebSocketError::invalidURL, shownURL(url));
    target.host = parsed->host_address();
    target.port = port;
    target.authority = parsed->encoded_host_and_port();
    target.path = parsed->encoded_target();
    if (target.path.empty() || target.path.front() != '/') target.path.insert(0, "/");
    return target;
}

}  // namespace

WebSocketClient::WebSocketClient(const asio::any_io_executor& pool, Clock& clock, WayOut way, WebSocketRequest request)
    : WebSocketClient(asio::make_strand(pool), clock, std::move(way), std::move(request)) {}

WebSocketClient::WebSocketClient(const Strand& strand, Clock& clock, WayOut way, WebSocketRequest request)
    : clock_(clock),
      way_(std::move(way)),
      request_(std::move(request)),
      sendEnded_(strand),
      goodbyeLimit_(strand),
      tasks_(strand) {}

WebSocketClient::~WebSocketClient() = default;

asio::awaitable<void> WebSocketClient::open() { return tasks_.call(doOpen()); }

asio::awaitable<WebSocketMessage> WebSocketClient::receive() { return tasks_.call(doReceive()); }

asio::awaitable<void> WebSocketClient::send(WebSocketMessage message) {
    return tasks_.call(doSend(std::move(message)));
}

asio::awaitable<void> WebSocketClient::doOpen() {
    try {
        co_await within(clock_, request_.openTimeout, connectAndUpgrade());
        isOpen_ = true;
    } catch (const TimeLimitExceeded&) {
        breakOff();
        throw WebSocketException(WebSocketError::timeout);
    } catch (...) {
        breakOff();
        throw;
    }
}

asio::awaitable<void> WebSocketClient::connectAndUpgrade() {
    const Target target = targetOf(request_.url);
    auto step = WebSocketError::cannotConnect;
    try {
        const std::vector<IPAddress> addresses = co_await way_.resolver.resolve(target.host);
        stream_ = std::make_unique<WebSocketStream>(tasks_.strand(), request_.maxMessageBytes);
        co_await connect(addresses, target.port);
        step = WebSocketError::insecure;
        if (target.isSecure) co_await stream_->secureAs(target.host);
        step = WebSocketError::closed;
        co_await stream_->upgrade(target.authority, target.path, request_.headers);
    } catch (const boost::system::system_error& error) {
        if (error.code() == asio::error::operation_aborted) throw;
        throw WebSocketException(step, textOf(error));
    }
}

/// To the first of `addresses` that answers.
asio::awaitable<void> WebSocketClient::connect(std::vector<IPAddress> addresses, std::uint16_t port) {
    boost::system::error_code error = asio::error::host_not_found;
    for (const IPAddress& address : addresses) {
        tcp::socket& socket = stream_->socket();
        const tcp::endpoint remote(toAsio(address), port);
        socket.close(error);
        try {
            openBound(socket, remote, way_.binding);
        } catch (const boost::system::system_error& refused) {
            error = refused.code();
            continue;
        }
        co_await socket.async_connect(remote, asio::redirect_error(asio::use_awaitable, error));
        if (!error) {
            socket.set_option(tcp::no_delay(true), error);
            co_return;
        }
        if (error == asio::error::operation_aborted) break;
    }
    throw boost::system::system_error(error);
}

asio::awaitable<WebSocketMessage> WebSocketClient::doReceive() {
    if (!stream_ || isBroken_) throw WebSocketException(WebSocketError::closed, "not open");
    try {
        co_return co_await stream_->read();
    } catch (const boost::system::system_error& error) {
        breakOff();
        if (error.code() == asio::error::operation_aborted) throw;
        throw WebSocketException(WebSocketError::closed, textOf(error));
    }
}

asio::awaitable<void> WebSocketClient::doSend(WebSocketMessage message) {
    const std::uint64_t turn = sendsBegun_++;
    try {
        while (sendsEnded_ != turn && !isBroken_) co_await sendEnded_.wait();
        co_await within(clock_, request_.sendTimeout, write(std::move(message)));
    } catch (const TimeLimitExceeded&) {
        breakOff();
        throw WebSocketException(WebSocketError::timeout);
    } catch (...) {
        breakOff();
        throw;
    }
    ++sendsEnded_;
    sendEnded_.notify();
}

asio::awaitable<void> WebSocketClient::write(WebSocketMessage message) {
    if (!stream_ || isBroken_) throw WebSocketException(WebSocketError::closed, "not open");
    try {
        co_await stream_->write(std::move(message));
    } catch (const boost::system::system_error& error) {
        if (error.code() == asio::error::operation_aborted) throw;
        throw WebSocketException(WebSocketError::closed, textOf(error));
    }
}

asio::awaitable<void> WebSocketClient::stop() { return tasks_.finish(shutDown()); }

asio::awaitable<void> WebSocketClient::shutDown() {
    try {
        co_await tasks_.call(sayGoodbye());
    } catch (const std::exception&) {
        // Nobody is there to say it to, or it was said before.
    }
    co_await tasks_.stop();
}

asio::awaitable<void> WebSocketClient::sayGoodbye() {
    if (isOpen_ && !isBroken_ && sendsEnded_ == sendsBegun_) {
        goodbyeLimit_.expires_after(goodbyePatience);
        auto both =
            asio::experimental::make_parallel_group(asio::co_spawn(tasks_.strand(), stream_->close(), asio::deferred),
                                                    goodbyeLimit_.async_wait(asio::deferred));
        co_await both.async_wait(asio::experimental::wait_for_one(), asio::use_awaitable);
    }
    breakOff();
}

/// What waits ends with an error, and what comes with it.
void WebSocketClient::breakOff() noexcept {
    isBroken_ = true;
    sendEnded_.notify();
    if (!stream_) return;
    boost::system::error_code ignored;
    stream_->socket().close(ignored);
}

}  // namespace skein
