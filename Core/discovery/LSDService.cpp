#include "Core/discovery/LSDService.h"

#include <boost/asio/strand.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <array>
#include <utility>

namespace skein {

namespace {

/// How long to leave a socket alone that cannot be read (no memory, the network is down).
constexpr std::chrono::seconds receivePause{1};

/// A random UUID (RFC 4122, version 4) in its canonical text.
std::string randomUUID(Random& random) {
    std::array<std::uint8_t, 16> bytes{};
    random.fill(bytes);
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0FU) | 0x40U);
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3FU) | 0x80U);
    std::string text = toHex(bytes);
    for (const std::size_t dash : {8U, 13U, 18U, 23U}) text.insert(dash, 1, '-');
    return text;
}

LSDMessage announcementOf(const LSDService::Torrent& torrent, Random& random) {
    LSDMessage message;
    message.port = torrent.listenPort;
    message.infoHashes.push_back(toUpperHex(torrent.infoHash));
    message.peerID = LSDMessage::peerIDText(torrent.peerID);
    message.cookie = randomUUID(random);
    return message;
}

}  // namespace

LSDService::LSDService(const asio::any_io_executor& pool, Clock& clock, Random& random, FileLogger& log,
                       const Torrent& torrent, Options options, PeerFound onPeerFound)
    : clock_(clock),
      log_(log),
      infoHashHex_(toUpperHex(torrent.infoHash)),
      announcement_(announcementOf(torrent, random)),
      allowsLocalPeers_(options.allowsLocalPeers),
      onPeerFound_(std::move(onPeerFound)),
      strand_(asio::make_strand(pool)),
      socket_(strand_, std::move(options), log) {}

LSDService::~LSDService() = default;

asio::awaitable<bool> LSDService::start() {
    if (tasks_) co_return true;
    tasks_ = std::make_unique<TaskGroup>(strand_);
    const bool isOpen = co_await tasks_->call(open());
    if (!isOpen) tasks_.reset();
    co_return isOpen;
}

asio::awaitable<void> LSDService::stop() {
    if (!tasks_) co_return;
    co_await tasks_->stop();
    tasks_.reset();
    socket_.close();
    log_.info("[LSD] stopped");
}

asio::awaitable<bool> LSDService::open() {
    if (!socket_.open()) co_return false;
    tasks_->spawn(receive());
    tasks_->spawn(announcePeriodically());
    log_.info("[LSD] started infoHash=", infoHashHex_, " port=", announcement_.port);
    co_return true;
}

asio::awaitable<void> LSDService::announcePeriodically() {
    const std::string datagram = announcement_.text();
    const std::string what = " infoHash=" + infoHashHex_ + " port=" + std::to_string(announcement_.port);
    co_await clock_.sleep(firstAnnounceDelay);
    for (;;) {
        socket_.announce(datagram, what);
        co_await clock_.sleep(announceInterval);
    }
}

asio::awaitable<void> LSDService::receive() {
    const LSDSocket::Receiver receiver = [this](std::string_view datagram, const std::string& fromHost) {
        handleMessage(datagram, fromHost);
    };
    for (;;) {
        bool isWell = true;
        try {
            co_await socket_.waitUntilReadable();
            isWell = socket_.receiveAvailableDatagrams(receiver);
        } catch (const boost::system::system_error& error) {
            if (error.code() == asio::error::operation_aborted) throw;
            isWell = false;
        }
        if (!isWell) co_await clock_.sleep(receivePause);
    }
}

void LSDService::handleMessage(std::string_view datagram, const std::string& fromHost) {
    const auto message = LSDMessage::parse(datagram);
    if (!message) return;
    log_.trace("[LSD] received announce from ", fromHost);
    if (message->cookie == announcement_.cookie) return;
    const auto& infoHashes = message->infoHashes;
    if (std::find(infoHashes.begin(), infoHashes.end(), infoHashHex_) == infoHashes.end()) return;
    if (message->port == 0) return;
    PeerAddress peer = PeerAddress::fromHost(fromHost, message->port);
    if (!isUsable(peer) || !limit_.admit(peer, clock_.now())) return;
    log_.debug("[LSD] found peer ", peer.host, " port=", peer.port);
    onPeerFound_(std::move(peer));
}

bool LSDService::isUsable(const PeerAddress& peer) const {
    return allowsLocalPeers_ ? peer.isLocal() : peer.isUsableLSDPeer();
}

}  // namespace skein
