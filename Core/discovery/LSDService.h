#pragma once

#include "Core/discovery/LSDMessage.h"
#include "Core/discovery/LSDPeerLimit.h"
#include "Core/discovery/LSDPort.h"
#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerHandshake.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Random.h"
#include "public/common/SHA1.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace skein {

/// Finds peers of one torrent in the local network: multicasts an announce, listens for those of others.
///
/// Owner: the session, which awaits `stop()` before it lets go, and calls `start` and `stop` one after the other.
/// Thread: any; the state lives on the port's strand. Source: BEP 14 (IPv4 only).
class LSDService final : private LSDPort::Listener {
public:
    struct Options {
        /// Announces also come back to this machine, and peers on its own loopback are reported too.
        bool multicastLoop = false;
        bool allowsLocalPeers = false;
    };
    /// Called on the service's strand; the receiver changes to its own. A peer comes once a minute at most.
    using PeerFound = std::function<void(PeerAddress peer)>;

    static constexpr std::chrono::seconds firstAnnounceDelay{1};
    static constexpr std::chrono::seconds announceInterval{60};

    /// What is announced.
    struct Torrent {
        SHA1Digest infoHash{};
        std::uint16_t listenPort = 0;  ///< where we take peer connections
        PeerID peerID{};
    };

    /// `port`, `clock` and `log` outlive the service; `random` is used for the cookie alone.
    LSDService(LSDPort& port, Clock& clock, Random& random, FileLogger& log, const Torrent& torrent,
               const Options& options, PeerFound onPeerFound);
    ~LSDService();

    /// True when the service runs; false when it has no socket (which is logged), and stays stopped. It may be started
    /// again after `stop`, and then keeps its cookie.
    asio::awaitable<bool> start();
    /// Returns when nothing of the service runs any more; no peer is reported after it.
    asio::awaitable<void> stop();

private:
    asio::awaitable<bool> open();
    asio::awaitable<void> announcePeriodically();
    void onAnnounce(const LSDMessage& message, const std::string& fromHost) override;
    asio::awaitable<void> leave();
    bool isUsable(const PeerAddress& peer) const;

    Clock& clock_;
    FileLogger& log_;
    const std::string infoHashHex_;
    const LSDMessage announcement_;
    const Options options_;
    const PeerFound onPeerFound_;
    LSDPort& port_;
    LSDPeerLimit limit_;
    std::unique_ptr<TaskGroup> tasks_;  ///< of one run, from `start` to `stop`
};

}  // namespace skein
