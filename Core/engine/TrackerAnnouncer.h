#pragma once

#include "Core/discovery/AnnounceSchedule.h"
#include "Core/discovery/TrackerClient.h"
#include "Core/discovery/TrackerRuntimeInfo.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <functional>
#include <memory>
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
        SHA1Digest infoHash;
    };

    struct Callbacks {
        std::function<Totals()> totals;
        /// Who named the tracker.
        std::function<AddressOrigin(const std::string& tracker)> originOf;
        /// Whether the torrent downloads with too few peers: the schedule may then ask earlier.
        std::function<bool()> isShortOfPeers;
        /// A tracker answered, as soon as it did.
        std::function<void(const TrackerAnnounceOutcome&)> onAnswer;
        std::function<void(const std::vector<TrackerRuntimeInfo>&)> onRowsChanged;
    };

    TrackerAnnouncer(const Environment& environment, std::unique_ptr<TrackerClient> client,
                     const AnnounceSchedule::Tiers& tiers, Callbacks callbacks);
    ~TrackerAnnouncer();

    /// Announces, and goes on doing so.
    void start();
    /// Adds those that are not there yet.
    void addTrackers(const AnnounceSchedule::Tiers& tiers);
    std::vector<TrackerRuntimeInfo> rows() const { return schedule_.rows(); }
    /// True while an answer is waited for.
    bool isAnnouncing() const noexcept { return announcesRunning_ > 0; }
    /// The download is complete: every tracker hears of it once.
    void noteCompleted();
    /// Looks again whether something is due: the session has few peers.
    void reconsider() { wake_.notify(); }
    /// Sends `stopped` to whoever heard `started`, waiting for `stopLimit` at most.
    asio::awaitable<void> stop();

private:
    asio::awaitable<void> announceLoop();
    void announceDue();
    asio::awaitable<void> announce(AnnounceSchedule::Due due);
    asio::awaitable<void> sendStopped();
    asio::awaitable<void> sendOneStopped(AnnounceSchedule::Due due);
    TrackerAnnounce announceOf(const AnnounceSchedule::Due& due) const;
    AnnounceSchedule::Moment moment() const;
    void reportRows();

    const Environment environment_;
    const std::unique_ptr<TrackerClient> client_;
    const Callbacks callbacks_;
    AnnounceSchedule schedule_;
    Notifier wake_;
    Notifier farewellEnded_;
    std::size_t farewellsRunning_ = 0;
    std::size_t announcesRunning_ = 0;
    TaskGroup tasks_;
    TaskGroup farewells_;
};

}  // namespace skein
