#include "Core/discovery/DHTNode.h"

#include "Core/discovery/PeerFeed.h"
#include "public/common/ErrorText.h"

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace skein {

namespace {

/// Routers that do not answer are not asked again by every session that wants peers.
constexpr std::chrono::seconds bootstrapPause{60};
/// Between them the strand serves its other tasks.
constexpr int datagramsAtOnce = 64;
/// How long a socket rests that cannot receive (no memory).
constexpr std::chrono::seconds receivePause{1};

std::string formatted(const char* format, double number) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), format, number);
    return text.data();
}

}  // namespace

const std::vector<PeerAddress> DHTNode::bootstrapNodes{{"router.bittorrent.com", 6881},
                                                       {"router.utorrent.com", 6881},
                                                       {"dht.transmissionbt.com", 6881},
                                                       {"dht.aelitis.com", 6881}};

DHTNode::DHTNode(const Environment& environment, Options options)
    : environment_(environment),
      options_(std::move(options)),
      protocol_(environment.random, *this),
      tasks_(environment.io),
      deadlineSet_(tasks_.strand()),
      bootstrapped_(tasks_.strand()),
      announced_(tasks_.strand()) {}

DHTNode::~DHTNode() = default;

asio::awaitable<void> DHTNode::start() { return tasks_.call(begin()); }
asio::awaitable<void> DHTNode::startListening() { return tasks_.call(beginListening()); }

std::unique_ptr<PeerStream> DHTNode::findPeers(const SHA1Digest& infoHash) {
    const auto feed = std::make_shared<PeerFeed>(tasks_.strand());
    auto stream = std::make_unique<PeerStream>(feed);
    tasks_.spawn(serve(feed->supply(), infoHash));
    return stream;
}

asio::awaitable<void> DHTNode::announcePeer(SHA1Digest infoHash, std::uint16_t downloadPort) {
    return tasks_.call(announce(infoHash, downloadPort));
}

asio::awaitable<void> DHTNode::stop() {
    co_await asio::this_coro::throw_if_cancelled(false);  // a caller that is cancelled half way still stops it all
    co_await tasks_.stop();
    // On the strand, where streams that are given up go too.
    co_await tasks_.finish(shutDown());
}

asio::awaitable<void> DHTNode::begin() {
    co_await beginListening();
    co_await bootstrapEnded();
}

asio::awaitable<void> DHTNode::beginListening() {
    if (isRunning_) co_return;
    try {
        open();
    } catch (const boost::system::system_error& error) {
        closeSockets();
        environment_.log.error("[DHT] Listener failed: ", textOf(error));
        throw;
    }
    isRunning_ = true;
    tasks_.spawn(keepDeadlines());
    if (options_.binding.isInterface()) tasks_.spawn(followInterface());
    beginBootstrap();
}

/// On the first address, which must be had, and on that of the other family if there is one.
void DHTNode::open() {
    closeSockets();
    listensOn_ = options_.binding.addresses();
    for (const IPAddress& address : listensOn_) {
        try {
            const std::uint16_t port = port_ != 0 ? port_.load() : options_.port;
            sockets_.push_back(std::make_shared<DHTSocket>(tasks_.strand(), address, port));
            options_.binding.tieToInterface(sockets_.back()->handle());
            port_ = sockets_.back()->port();
        } catch (const boost::system::system_error& error) {
            if (sockets_.empty()) throw;
            environment_.log.info("[DHT] no IPv6 socket: ", textOf(error));
        }
    }
    for (const auto& socket : sockets_) tasks_.spawn(listen(socket));
}

void DHTNode::closeSockets() noexcept {
    for (const auto& socket : sockets_) socket->close();
    sockets_.clear();
}

asio::awaitable<void> DHTNode::followInterface() {
    for (;;) {
        co_await environment_.clock.sleep(interfaceCheckInterval);
        if (options_.binding.addresses() == listensOn_) continue;
        try {
            open();
            environment_.log.info("[DHT] follows ", options_.binding.name(), ": ", sockets_.size(), " address(es)");
            lastBootstrap_.reset();
            beginBootstrap();
        } catch (const boost::system::system_error& error) {
            environment_.log.warning("[DHT] Listener failed: ", textOf(error));
            listensOn_.clear();  // tried again
        }
    }
}

void DHTNode::beginBootstrap() {
    const auto now = environment_.clock.now();
    if (isBootstrapping_ || options_.bootstrapNodes.empty()) return;
    if (lastBootstrap_ && now < *lastBootstrap_ + bootstrapPause) return;
    isBootstrapping_ = true;
    lastBootstrap_ = now;
    // A task of its own: whoever asked for it may be cancelled, the others that wait for it are not.
    tasks_.spawn(bootstrap());
}

asio::awaitable<void> DHTNode::bootstrap() {
    for (const PeerAddress& router : options_.bootstrapNodes) tasks_.spawn(greet(router));
    co_await environment_.clock.sleep(bootstrapTime);
    isBootstrapping_ = false;
    bootstrapped_.notify();
}

asio::awaitable<void> DHTNode::bootstrapEnded() {
    while (isBootstrapping_) co_await bootstrapped_.wait();
}

asio::awaitable<void> DHTNode::greet(PeerAddress router) try {
    const std::vector<IPAddress> addresses = co_await environment_.resolver.resolve(std::move(router.host));
    for (const bool isIPv4 : {true, false}) {
        const auto address = std::find_if(addresses.begin(), addresses.end(), [&](const IPAddress& candidate) {
            return candidate.isIPv4() == isIPv4 && canReach(candidate);
        });
        if (address == addresses.end()) continue;
        protocol_.sendFindNode({*address, router.port}, protocol_.nodeID(), environment_.clock.now());
    }
    wakeForDeadline();
} catch (const boost::system::system_error&) {
    // Not found; one of the others may be.
}

asio::awaitable<void> DHTNode::listen(std::shared_ptr<DHTSocket> socket) {
    // It may be closed while a datagram, or the end of a pause, is on its way here.
    while (socket->isOpen()) {
        bool hasFailed = false;
        try {
            co_await socket->wait();
            for (int i = 0; i < datagramsAtOnce; ++i) {
                const auto datagram = socket->receive();
                if (!datagram) break;
                protocol_.receive(datagram->bytes, datagram->from, environment_.clock.now());
            }
        } catch (const boost::system::system_error& error) {
            if (error.code() == asio::error::operation_aborted) throw;
            hasFailed = true;
        }
        if (hasFailed) co_await environment_.clock.sleep(receivePause);
    }
}

/// Sleeps no longer than a query waits: so a query that is sent meanwhile is not overslept.
asio::awaitable<void> DHTNode::keepDeadlines() {
    for (;;) {
        const auto deadline = protocol_.deadline();
        if (deadline) {
            const Clock::Duration left = *deadline - environment_.clock.now();
            co_await environment_.clock.sleep(std::min<Clock::Duration>(left, TransactionTable::queryTimeout));
            protocol_.expire(environment_.clock.now());
        } else {
            awaitsDeadline_ = true;
            co_await deadlineSet_.wait();
        }
    }
}

void DHTNode::wakeForDeadline() {
    if (!awaitsDeadline_ || !protocol_.deadline()) return;
    awaitsDeadline_ = false;
    deadlineSet_.notify();
}

asio::awaitable<void> DHTNode::serve(std::shared_ptr<PeerFeed> feed, SHA1Digest infoHash) {
    co_await bootstrapEnded();
    if (isRunning_ && protocol_.needsBootstrap(environment_.clock.now())) beginBootstrap();
    co_await bootstrapEnded();
    if (isRunning_ && !feed->isAbandoned()) join(feed, infoHash);
}

/// One look-up serves all that ask for the same info-hash; who comes later gets what was found before.
void DHTNode::join(const std::shared_ptr<PeerFeed>& feed, const SHA1Digest& infoHash) {
    feed->onAbandoned([this, feed = feed.get(), infoHash] { leave(feed, infoHash); });
    Feeds& feeds = feeds_[infoHash];
    feeds.push_back(feed);
    if (feeds.size() == 1) {
        protocol_.startLookup(infoHash, environment_.clock.now());
        wakeForDeadline();
    } else if (const PeerLookup* lookup = protocol_.activeLookup(infoHash)) {
        for (const DHTEndpoint& peer : lookup->emittedPeers()) feed->put(PeerAddress::from(peer.host, peer.port));
    }
}

void DHTNode::leave(const PeerFeed* feed, const SHA1Digest& infoHash) {
    const auto feeds = feeds_.find(infoHash);
    if (feeds == feeds_.end()) return;
    std::erase_if(feeds->second, [&](const auto& held) { return held.get() == feed; });
    if (!feeds->second.empty()) return;
    feeds_.erase(feeds);
    protocol_.cancelLookup(infoHash, environment_.clock.now());
    wakeForDeadline();
}

asio::awaitable<void> DHTNode::announce(SHA1Digest infoHash, std::uint16_t downloadPort) {
    protocol_.announce(infoHash, downloadPort, environment_.clock.now());
    wakeForDeadline();
    while (protocol_.announcesOutstanding(infoHash) > 0) co_await announced_.wait();
    const DHTProtocol::AnnounceStatistics& all = protocol_.announces();
    const double rate =
        100.0 * static_cast<double>(all.succeeded) / static_cast<double>(std::max<std::size_t>(all.sent, 1));
    environment_.log.info("[DHT] announce_peer sent=", all.sent, " ok=", all.succeeded, " failed=", all.failed,
                          " successRate=", formatted("%.0f", rate), "%");
}

asio::awaitable<void> DHTNode::shutDown() {
    protocol_.cancelAllLookups(environment_.clock.now());
    feeds_.clear();
    isRunning_ = false;
    closeSockets();
    co_return;
}

bool DHTNode::send(const DHTEndpoint& to, ByteView datagram) {
    for (const auto& socket : sockets_)
        if (socket->isIPv4() == to.host.isIPv4()) return socket->send(to, datagram);
    return false;
}

bool DHTNode::canReach(const IPAddress& address) const {
    return std::any_of(sockets_.begin(), sockets_.end(),
                       [&](const auto& socket) { return socket->isIPv4() == address.isIPv4(); });
}

void DHTNode::foundPeer(const NodeID& infoHash, const DHTEndpoint& peer) {
    const auto feeds = feeds_.find(infoHash);
    if (feeds == feeds_.end()) return;
    for (const auto& feed : feeds->second) feed->put(PeerAddress::from(peer.host, peer.port));
}

void DHTNode::lookupFinished(const PeerLookup& lookup, LookupEnd end, DHTProtocol::Duration elapsed) {
    const PeerLookup::Statistics& all = lookup.statistics();
    const double seconds = std::chrono::duration<double>(elapsed).count();
    environment_.log.info("[DHT] lookup finished reason=", textOf(end), " queried=", all.queried,
                          " responses=", all.responses, " timeouts=", all.timeouts, " nodes=", all.nodesFound,
                          " peers=", all.peersFound, " elapsed=", formatted("%.1f", seconds), "s");
    feeds_.erase(lookup.infoHash());
}

void DHTNode::announceSettled() { announced_.notify(); }

}  // namespace skein
