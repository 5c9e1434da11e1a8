#include "Core/wire/RelayTransport.h"

#include "Core/wire/RelayError.h"
#include "Core/wire/RelayInbox.h"
#include "public/common/WebSocketClient.h"
#include "public/common/Within.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/url/encode.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/rfc/unreserved_chars.hpp>

#include <cassert>
#include <exception>
#include <utility>

namespace skein {

namespace {

constexpr std::string_view path = "/api/relay/ws";
/// Longer than a peer connection waits for a write, so that over a relay it is no less patient than otherwise.
constexpr std::chrono::minutes sendPatience{5};
/// Of the service's word, that much is told on: it ends up in logs.
constexpr std::size_t maxReasonBytes = 512;

void appendItem(std::string& url, char separator, std::string_view name, const std::string& value) {
    url += separator;
    url.append(name).append("=").append(boost::urls::encode(value, boost::urls::unreserved_chars));
}

/// The library takes any digits for a port, and what follows them for a path.
bool isSound(const boost::urls::url_view& base) {
    constexpr int largestPort = 65'535;
    const std::string port = base.port();
    const bool hasPort = port.empty() || (port.size() <= 5 && std::stoi(port) > 0 && std::stoi(port) <= largestPort);
    return hasPort && !base.host().empty() && (base.encoded_path().empty() || base.encoded_path().starts_with('/'));
}

std::string urlOf(const RelayTransport::Request& request) {
    const auto base = boost::urls::parse_uri(request.serverURL);
    if (!base || !isSound(*base)) throw RelayException(RelayError::invalidURL);
    std::string url = base->scheme_id() == boost::urls::scheme::https ? "wss://" : "ws://";
    url.append(base->encoded_host_and_port()).append(base->encoded_path());
    while (url.back() == '/') url.pop_back();
    url.append(path);
    appendItem(url, '?', "info_hash", request.infoHash);
    appendItem(url, '&', "role", request.role);
    if (request.mode) appendItem(url, '&', "mode", *request.mode);
    return url;
}

WebSocketRequest upgradeFor(const RelayTransport::Request& request) {
    WebSocketRequest upgrade;
    upgrade.url = urlOf(request);
    upgrade.headers = {
        {"X-User-Id", request.userID}, {"X-User-Token", request.token}, {"X-Device-Id", request.deviceId}};
    upgrade.openTimeout = RelayTransport::pairingTimeout;
    upgrade.sendTimeout = sendPatience;
    upgrade.maxMessageBytes = RelayTransport::maxMessageBytes;
    return upgrade;
}

/// What the websocket's end means before the pairing.
RelayException failureOf(const WebSocketException& failure) {
    switch (failure.error) {
        case WebSocketError::invalidURL: return RelayException(RelayError::invalidURL);
        case WebSocketError::insecure:
        case WebSocketError::refused: return RelayException(RelayError::rejected, failure.what());
        case WebSocketError::timeout: return RelayException(RelayError::pairingTimeout);
        case WebSocketError::cannotConnect:
        case WebSocketError::closed: break;
    }
    return RelayException(RelayError::closed);
}

}  // namespace

/// The websocket and what came through it. Whoever waits holds it, so that the transport need not outlive them.
class RelayTransport::Link : public std::enable_shared_from_this<Link> {
public:
    Link(const Environment& environment, const Request& request)
        : inbox(environment.strand),
          clock_(environment.clock),
          task_(environment.strand, environment.clock, environment.way, upgradeFor(request)),
          loop_(environment.strand) {}

    RelayInbox inbox;

    static asio::awaitable<void> connect(std::shared_ptr<Link> self) {
        assert(!self->hasBegun_);
        if (self->inbox.isClosed()) throw RelayException(RelayError::closed);
        self->hasBegun_ = true;
        std::exception_ptr failure;
        try {
            co_await within(self->clock_, pairingTimeout, self->pair());
        } catch (...) {
            failure = self->pairingFailure(std::current_exception());
        }
        if (self->inbox.isClosed() && !failure) failure = std::make_exception_ptr(RelayException(RelayError::closed));
        if (failure) {
            self->close();
            std::rethrow_exception(failure);
        }
        self->loop_.spawn(self->startReceiveLoop());
    }

    static asio::awaitable<void> send(std::shared_ptr<Link> self, WebSocketMessage message) {
        if (self->inbox.isClosed()) throw RelayException(RelayError::closed);
        std::exception_ptr failure;
        try {
            co_await self->task_.send(std::move(message));
        } catch (const WebSocketException&) {
            failure = std::make_exception_ptr(RelayException(RelayError::closed));
        } catch (...) {
            failure = self->closedOr(std::current_exception());
        }
        if (!failure) co_return;
        self->close();  // nothing can follow half a message
        std::rethrow_exception(failure);
    }

    static asio::awaitable<std::size_t> receive(std::shared_ptr<Link> self, std::span<std::uint8_t> into,
                                                std::size_t least) {
        co_return co_await self->inbox.read(into, least);
    }

    static asio::awaitable<Bytes> receive(std::shared_ptr<Link> self, std::size_t count) {
        Bytes bytes(count);
        co_await self->inbox.read(bytes, count);
        co_return bytes;
    }

    void close() noexcept {
        if (inbox.isClosed()) return;
        inbox.close();
        // Not by its owner, who may be gone: the link ends its own tasks, and goes with the last of them.
        if (hasBegun_) asio::co_spawn(loop_.strand(), endTasks(shared_from_this()), asio::detached);
    }

private:
    asio::awaitable<void> pair() {
        co_await task_.open();
        const WebSocketMessage first = co_await task_.receive();
        if (!first.isText) throw RelayException(RelayError::rejected, "unexpected message type");
        if (first.view() != "ready") throw RelayException(RelayError::rejected, first.view().substr(0, maxReasonBytes));
    }

    /// Text is as good as binary here; the messages' boundaries mean nothing.
    asio::awaitable<void> startReceiveLoop() try {
        for (;;) {
            co_await inbox.waitForRoom();
            WebSocketMessage message = co_await task_.receive();
            inbox.append(std::move(message.data));
        }
    } catch (const std::exception&) {
        close();
    }

    static asio::awaitable<void> endTasks(std::shared_ptr<Link> self) {
        co_await self->task_.stop();
        co_await self->loop_.stop();
    }

    std::exception_ptr pairingFailure(const std::exception_ptr& failure) const {
        if (inbox.isClosed()) return closedOr(failure);
        try {
            std::rethrow_exception(failure);
        } catch (const TimeLimitExceeded&) {
            return std::make_exception_ptr(RelayException(RelayError::pairingTimeout));
        } catch (const WebSocketException& reason) {
            return std::make_exception_ptr(failureOf(reason));
        } catch (...) {
            return failure;
        }
    }
    /// What ends because the link was closed says so.
    std::exception_ptr closedOr(const std::exception_ptr& failure) const {
        return inbox.isClosed() ? std::make_exception_ptr(RelayException(RelayError::closed)) : failure;
    }

    Clock& clock_;
    bool hasBegun_ = false;
    WebSocketClient task_;
    TaskGroup loop_;
};

RelayTransport::RelayTransport(const Environment& environment, const Request& request)
    : link_(std::make_shared<Link>(environment, request)) {}

RelayTransport::~RelayTransport() { cancel(); }

asio::awaitable<void> RelayTransport::connect() { return Link::connect(link_); }

asio::awaitable<void> RelayTransport::send(ByteView data) { return Link::send(link_, WebSocketMessage::binary(data)); }

asio::awaitable<Bytes> RelayTransport::receive(std::size_t count) { return Link::receive(link_, count); }

asio::awaitable<std::size_t> RelayTransport::receiveSome(std::span<std::uint8_t> into) {
    return Link::receive(link_, into, 1);
}

void RelayTransport::cancel() noexcept { link_->close(); }

}  // namespace skein
