#pragma once

#include "Core/discovery/TrackerAnnounce.h"
#include "Core/discovery/TrackerRuntimeInfo.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// When each tracker of one torrent is announced to next, with which event, and what is shown of it meanwhile.
///
/// A tracker is told `started` until it has once answered, `completed` once after that when the download completed, and
/// `stopped` when it was told that we started. In between it is asked as often as it asked for, within `minInterval`
/// and `maxInterval`; a download short of peers may ask sooner. A tracker that fails is tried again after 15 s, and
/// each time after twice as long, up to half an hour. An event does not wait for the interval.
///
/// Plain data and rules: no clock, no sockets, no thread. The owner takes what is due, announces it, and reports.
/// Source: BEP 3.
class AnnounceSchedule {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using Tiers = std::vector<std::vector<std::string>>;

    struct Moment {
        TimePoint time;                              ///< what is scheduled goes by this
        std::chrono::system_clock::time_point date;  ///< the same moment, for the rows
    };
    struct Due {
        std::string tracker;
        TrackerEvent event = TrackerEvent::empty;
    };

    /// What a tracker asks for is taken within these: less would be a burden on it, more a mistake.
    static constexpr std::chrono::seconds minInterval{60};
    static constexpr std::chrono::seconds maxInterval{86'400};
    /// Between two announces to one tracker while we are short of peers.
    static constexpr std::chrono::seconds shortOfPeersInterval{60};
    static constexpr std::chrono::seconds firstRetry{15};
    static constexpr std::chrono::seconds longestRetry{1800};

    explicit AnnounceSchedule(const Tiers& tiers = {}) { add(tiers); }

    /// Adds the trackers that are not there yet, up to maxTrackersOfTorrent; they are due at once.
    void add(const Tiers& tiers);

    /// The announces that are due; each counts as on its way until it is reported. `isShortOfPeers`: the torrent is
    /// downloading with too few peers.
    std::vector<Due> takeDue(Moment now, bool isShortOfPeers);
    /// When `takeDue` has something next (the epoch for what never was announced); nothing while all are on their way.
    std::optional<TimePoint> nextDue(bool isShortOfPeers) const;
    /// What came of an announce that was taken. What is reported after `takeStops` is ignored.
    void report(const Due& due, const TrackerAnnounceOutcome& outcome, Moment now);

    /// The download completed (not: was found complete). `completed` is due wherever we started.
    void complete();
    /// The `stopped` announces, one for each tracker that was told that we started; they are not reported, nor tried
    /// again. The schedule is then where it was in the beginning.
    std::vector<Due> takeStops();

    /// In the order of the tiers.
    std::vector<TrackerRuntimeInfo> rows() const;

private:
    struct Tracker {
        TrackerRuntimeInfo row;
        bool isAnnouncing = false;
        bool isStarted = false;
        bool owesCompleted = false;
        int failuresInARow = 0;
        std::optional<TimePoint> lastEnd;  ///< of an announce, well or badly
        std::chrono::seconds pause{0};     ///< from then to the next
    };

    static TrackerEvent eventFor(const Tracker& tracker);
    static std::optional<TimePoint> dueAt(const Tracker& tracker, bool isShortOfPeers);
    Tracker* find(std::string_view url);

    std::vector<Tracker> trackers_;
    bool isCompleted_ = false;
};

}  // namespace skein
