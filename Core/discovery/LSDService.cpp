#include "Core/discovery/LSDService.h"

#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <array>
#include <utility>

namespace skein {

namespace {

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

LSDService::LSDService(LSDPort& port, Clock& clock, Random& random, FileLogger& log, const Torrent& torrent,
                       const Options& options, PeerFound onPeerFound)
    : clock_(clock),
      log_(log),
      infoHashHex_(toUpperHex(torrent.infoHash)),
      announcement_(announcementOf(torrent, random)),
      options_(options),
      onPeerFound_(std::move(onPeerFound)),
      port_(port) {}

LSDService::~LSDService() = default;

asio::awaitable<bool> LSDService::start() {
    if (tasks_) co_return true;
    tasks_ = std::make_unique<TaskGroup>(port_.strand());
    const bool isOpen = co_await tasks_->call(open());
    if (!isOpen) tasks_.reset();
    co_return isOpen;
}

asio::awaitable<void> LSDService::stop() {
    if (!tasks_) co_return;
    co_await tasks_->stop();
    const std::unique_ptr<TaskGroup> ended = std::move(tasks_);
    co_await ended->finish(leave());
    log_.info("[LSD] stopped");
}

asio::awaitable<bool> LSDService::open() {
    if (!port_.add(infoHashHex_, *this, options_.multicastLoop)) co_return false;
    tasks_->spawn(announcePeriodically());
    log_.info("[LSD] started infoHash=", infoHashHex_, " port=", announcement_.port);
    co_return true;
}

asio::awaitable<void> LSDService::leave() {
    port_.remove(infoHashHex_, *this);
    co_return;
}

asio::awaitable<void> LSDService::announcePeriodically() {
    const std::string datagram = announcement_.text();
    const std::string what = " infoHash=" + infoHashHex_ + " port=" + std::to_string(announcement_.port);
    co_await clock_.sleep(firstAnnounceDelay);
    for (;;) {
        port_.announce(datagram, what);
        co_await clock_.sleep(announceInterval);
    }
}

void LSDService::onAnnounce(const LSDMessage& message, const std::string& fromHost) {
    if (message.cookie == announcement_.cookie || message.port == 0) return;
    PeerAddress peer = PeerAddress::fromHost(fromHost, message.port);
    if (!isUsable(peer) || !limit_.admit(peer, clock_.now())) return;
    log_.debug("[LSD] found peer ", peer.host, " port=", peer.port);
    onPeerFound_(std::move(peer));
}

bool LSDService::isUsable(const PeerAddress& peer) const {
    return options_.allowsLocalPeers ? peer.isLocal() : peer.isUsableLSDPeer();
}

}  // namespace skein
