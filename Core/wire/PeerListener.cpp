#include "Core/wire/PeerListener.h"

#include "Core/wire/NWPeerWireTransport.h"
#include "Core/wire/PeerHandshake.h"
#include "public/common/AsioAddress.h"
#include "public/common/ErrorText.h"
#include "public/common/Within.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <utility>

namespace skein {

using asio::ip::tcp;

namespace {

/// How long to leave a listener alone that cannot accept (no descriptors left).
constexpr std::chrono::seconds acceptPause{1};
/// Of the 16 bytes of an IPv6 address, those that name the network of one host.
constexpr std::size_t networkBytes = 8;

IPAddress hostOf(const IPAddress& address) {
    if (address.isIPv4()) return address;
    IPAddress::V6Bytes network{};
    std::copy_n(address.bytes().begin(), networkBytes, network.begin());
    return IPAddress(network);
}

}  // namespace

/// A place among those that have yet to say what they want, from the connection until the handshake is read.
class PeerListener::HalfOpen {
public:
    HalfOpen(PeerListener& of, const IPAddress& host) : of_(&of), host_(host) {
        ++of.halfOpen_;
        ++of.halfOpenOfHost_[host];
    }
    HalfOpen(HalfOpen&& other) noexcept : of_(std::exchange(other.of_, nullptr)), host_(other.host_) {}
    HalfOpen& operator=(HalfOpen&&) = delete;
    ~HalfOpen() {
        if (of_ == nullptr) return;
        --of_->halfOpen_;
        const auto entry = of_->halfOpenOfHost_.find(host_);
        if (--entry->second == 0) of_->halfOpenOfHost_.erase(entry);
    }

private:
    PeerListener* of_;
    const IPAddress host_;
};

PeerListener::PeerListener(const asio::any_io_executor& io, Clock& clock, FileLogger& log, LocalBinding binding)
    : io_(io), clock_(clock), log_(log), binding_(std::move(binding)), tasks_(io) {}

PeerListener::~PeerListener() = default;

asio::awaitable<void> PeerListener::start(std::uint16_t port) { return tasks_.call(open(port)); }

asio::awaitable<void> PeerListener::add(SHA1Digest infoHash, Handler handler) {
    return tasks_.call(insert(infoHash, std::move(handler)));
}

asio::awaitable<void> PeerListener::remove(SHA1Digest infoHash) { return tasks_.call(erase(infoHash)); }

asio::awaitable<void> PeerListener::stop() {
    co_await tasks_.stop();
    closeAll();
}

asio::awaitable<void> PeerListener::open(std::uint16_t port) {
    port_ = port;
    try {
        openAll(port);
    } catch (const boost::system::system_error& error) {
        if (error.code() != asio::error::address_in_use || port == 0) throw;
        openAll(0);
    }
    if (binding_.isInterface()) tasks_.spawn(followInterface());
    co_return;
}

/// On the first address, which must be had, and on that of the other family if there is one.
void PeerListener::openAll(std::uint16_t port) {
    closeAll();
    listensOn_ = binding_.addresses();
    for (const IPAddress& address : listensOn_) {
        try {
            listenOn({toAsio(address), acceptors_.empty() ? port : port_.load()});
            port_ = acceptors_.front()->local_endpoint().port();
        } catch (const boost::system::system_error& error) {
            if (acceptors_.empty()) throw;
            log_.info("[Session] no IPv6 listener: ", textOf(error));
        }
    }
    for (const auto& acceptor : acceptors_) tasks_.spawn(acceptPeers(acceptor));
}

void PeerListener::closeAll() {
    boost::system::error_code ignored;
    for (const auto& acceptor : acceptors_) acceptor->close(ignored);
    acceptors_.clear();
}

asio::awaitable<void> PeerListener::followInterface() {
    for (;;) {
        co_await clock_.sleep(interfaceCheckInterval);
        if (binding_.addresses() == listensOn_) continue;
        try {
            openAll(port_);
            log_.info("[Session] the listener follows ", binding_.name(), ": ", acceptors_.size(), " address(es)");
        } catch (const boost::system::system_error& error) {
            log_.warning("[Session] listening on ", binding_.name(), " failed: ", textOf(error));
            listensOn_.clear();  // tried again
        }
    }
}

void PeerListener::listenOn(const tcp::endpoint& endpoint) {
    auto acceptor = std::make_shared<Acceptor>(io_);
    acceptor->open(endpoint.protocol());
    acceptor->set_option(tcp::acceptor::reuse_address(true));
    if (endpoint.address().is_v6()) acceptor->set_option(asio::ip::v6_only(true));
    binding_.tieToInterface(acceptor->native_handle());
    acceptor->bind(endpoint);
    acceptor->listen();
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

asio::awaitable<void> PeerListener::acceptPeers(std::shared_ptr<Acceptor> acceptor) {
    // It may be closed while a connection, or the end of a pause, is on its way here.
    while (acceptor->is_open()) {
        boost::system::error_code error;
        tcp::socket socket = co_await acceptor->async_accept(io_, asio::redirect_error(asio::use_awaitable, error));
        if (error == asio::error::operation_aborted) co_return;
        if (error) {
            co_await clock_.sleep(acceptPause);
        } else {
            admit(std::move(socket));
        }
    }
}

void PeerListener::admit(tcp::socket socket) {
    boost::system::error_code hasLeft;
    const tcp::endpoint remote = socket.remote_endpoint(hasLeft);
    if (hasLeft) return;
    const IPAddress host = hostOf(fromAsio(remote.address()));
    const auto known = halfOpenOfHost_.find(host);
    const bool isTooMuch = known != halfOpenOfHost_.end() && known->second >= maxHalfOpenOfHost;
    if (isTooMuch || halfOpen_ >= maxHalfOpen) {
        log_.debug("[Handshake] ✗ ", remote.address().to_string(), " turned away: too many connections say nothing");
        return;
    }
    HalfOpen place(*this, host);
    tasks_.spawn(route(std::move(socket), std::move(place)));
}

/// Reads the handshake to learn the torrent, puts it back and hands the connection on. Whoever asks for
/// a torrent that we do not have, or says nothing in time, is dropped.
asio::awaitable<void> PeerListener::route(tcp::socket socket, HalfOpen) {
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
}

}  // namespace skein
