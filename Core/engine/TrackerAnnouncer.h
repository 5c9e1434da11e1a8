#pragma once

#include "Core/discovery/AnnounceSchedule.h"
#include "Core/discovery/TrackerClient.h"
#include "Core/discovery/TrackerRuntimeInfo.h"
#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerHandshake.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <functional>
#include <string>
#include <vector>

namespace skein {

/// Announces one torrent to its trackers when the schedule says so, all that are due at once.
///
/// Owner: the session, which awaits `stop()`. Thread: the session's strand, on which the callbacks come too.
class TrackerAnnouncer {
public:
    /// How long a session that stops waits for its trackers to hear of it.
    static constexpr std::chrono::seconds stopLimit{3};

    struct Totals {
        std::int64_t downloaded = 0;
        std::int64_t uploaded = 0;
        std::int64_t left = 0;
    };

    struct Environment {
        Strand strand;
        Clock& clock;
        FileLogger& log;
        TrackerClient& client;
        SHA1Digest infoHash;
        PeerID peerID;
        std::uint16_t port;
    };

    struct Callbacks {
        std::function<Totals()> totals;
        /// Whether more peers are wanted than there are: the schedule may then ask earlier.
        std::function<bool()> wantsPeers;
        std::function<void(const std::string& tracker, const std::vector<PeerAddress>& peers)> onPeersFound;
        std::function<void(const std::vector<TrackerRuntimeInfo>&)> onRowsChanged;
    };

    TrackerAnnouncer(const Environment& environment, std::vector<std::vector<std::string>> tiers, Callbacks callbacks);
    ~TrackerAnnouncer();

    /// Announces, and goes on doing so.
    void start();
    /// The download is complete: every tracker hears of it once.
    void noteCompleted();
    /// Looks again whether something is due: the session has few peers.
    void reconsider() { wake_.notify(); }
    /// Sends `stopped` to whoever heard `started`, waiting for `stopLimit` at most.
    asio::awaitable<void> stop();

private:
    asio::awaitable<void> announceLoop();
    asio::awaitable<void> announce(AnnounceSchedule::Due due);
    asio::awaitable<void> sendStopped();
    asio::awaitable<void> sendOneStopped(std::string tracker);
    void reportRows();

    const Environment environment_;
    const Callbacks callbacks_;
    AnnounceSchedule schedule_;
    Notifier wake_;
    std::size_t announcesRunning_ = 0;
    TaskGroup tasks_;
    TaskGroup farewells_;
};

}  // namespace skein
