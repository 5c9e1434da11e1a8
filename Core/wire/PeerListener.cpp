#include "Core/wire/PeerListener.h"

#include "Core/wire/NWPeerWireTransport.h"
#include "Core/wire/PeerHandshake.h"
#include "public/common/ErrorText.h"
#include "public/common/Within.h"

#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace skein {

using asio::ip::tcp;

namespace {

/// How long to leave a listener alone that cannot accept (no descriptors left).
constexpr std::chrono::seconds acceptPause{1};

}  // namespace

PeerListener::PeerListener(const asio::any_io_executor& io, Clock& clock, FileLogger& log, std::string bindAddress)
    : io_(io), clock_(clock), log_(log), bindAddress_(std::move(bindAddress)), tasks_(io) {}

PeerListener::~PeerListener() = default;

asio::awaitable<void> PeerListener::start(std::uint16_t port) { return tasks_.call(open(port)); }

asio::awaitable<void> PeerListener::add(SHA1Digest infoHash, Handler handler) {
    return tasks_.call(insert(infoHash, std::move(handler)));
}

asio::awaitable<void> PeerListener::remove(SHA1Digest infoHash) { return tasks_.call(erase(infoHash)); }

asio::awaitable<void> PeerListener::stop() {
    co_await tasks_.stop();
    acceptors_.clear();
}

asio::awaitable<void> PeerListener::open(std::uint16_t port) {
    tcp::endpoint first(
        bindAddress_.empty() ? asio::ip::address(asio::ip::address_v4::any()) : asio::ip::make_address(bindAddress_),
        port);
    try {
        listenOn(first);
    } catch (const boost::system::system_error& error) {
        if (error.code() != asio::error::address_in_use || port == 0) throw;
        first.port(0);
        listenOn(first);
    }
    port_ = acceptors_.front().local_endpoint().port();
    if (bindAddress_.empty()) listenOnIPv6Too();
    for (Acceptor& acceptor : acceptors_) tasks_.spawn(acceptPeers(acceptor));
    co_return;
}

void PeerListener::listenOnIPv6Too() {
    try {
        listenOn({asio::ip::address_v6::any(), port_});
    } catch (const boost::system::system_error& error) {
        log_.info("[Session] no IPv6 listener: ", textOf(error));
    }
}

void PeerListener::listenOn(const tcp::endpoint& endpoint) {
    Acceptor acceptor(io_);
    acceptor.open(endpoint.protocol());
    acceptor.set_option(tcp::acceptor::reuse_address(true));
    if (endpoint.address().is_v6()) acceptor.set_option(asio::ip::v6_only(true));
    acceptor.bind(endpoint);
    acceptor.listen();
    acceptors_.push_back(std::move(acceptor));
}

asio::awaitable<void> PeerListener::insert(SHA1Digest infoHash, Handler handler) {
    handlers_[infoHash] = std::move(handler);
    co_return;
}

asio::awaitable<void> PeerListener::erase(SHA1Digest infoHash) {
    handlers_.erase(infoHash);
    co_return;
}

asio::awaitable<void> PeerListener::acceptPeers(Acceptor& acceptor) {
    for (;;) {
        boost::system::error_code error;
        tcp::socket socket = co_await acceptor.async_accept(io_, asio::redirect_error(asio::use_awaitable, error));
        if (error == asio::error::operation_aborted) co_return;
        if (error) {
            co_await clock_.sleep(acceptPause);
        } else if (halfOpen_ < maxHalfOpen) {
            tasks_.spawn(route(std::move(socket)));
        }
    }
}

/// Reads the handshake to learn the torrent, puts it back and hands the connection on. Whoever asks for
/// a torrent that we do not have, or says nothing in time, is dropped.
asio::awaitable<void> PeerListener::route(tcp::socket socket) {
    ++halfOpen_;
    try {
        const tcp::endpoint remote = socket.remote_endpoint();
        auto transport = std::make_unique<NWPeerWireTransport>(std::move(socket));
        Bytes handshake = co_await within(clock_, handshakeTimeout, transport->receive(PeerHandshake::size));
        if (const auto fault = PeerHandshake::faultOf(handshake)) {
            log_.debug("[Handshake] ✗ ", remote.address().to_string(), *fault);
        } else if (const auto handler = handlers_.find(PeerHandshake::decode(handshake).infoHash);
                   handler != handlers_.end()) {
            transport->putBack(std::move(handshake));
            handler->second(std::move(transport), PeerAddress::fromHost(remote.address().to_string(), remote.port()));
        }
    } catch (const std::exception& error) {
        log_.debug("[Handshake] ✗ ", textOf(error));
    }
    --halfOpen_;
}

}  // namespace skein
