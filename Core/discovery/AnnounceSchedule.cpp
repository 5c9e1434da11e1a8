#include "Core/discovery/AnnounceSchedule.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace {

std::chrono::seconds retryPause(int failuresInARow) {
    auto pause = AnnounceSchedule::firstRetry;
    for (int i = 1; i < failuresInARow && pause < AnnounceSchedule::longestRetry; ++i) pause *= 2;
    return std::min(pause, AnnounceSchedule::longestRetry);
}

std::chrono::seconds pauseFor(std::int64_t interval) {
    return std::clamp(std::chrono::seconds(interval), AnnounceSchedule::minInterval, AnnounceSchedule::maxInterval);
}

}  // namespace

void AnnounceSchedule::add(const Tiers& tiers) {
    for (const auto& tier : tiers)
        for (const std::string& url : tier) {
            if (trackers_.size() == maxTrackersOfTorrent || find(url) != nullptr) continue;
            Tracker tracker;
            tracker.row.id = url;
            tracker.row.url = url;
            tracker.row.scheme = url.substr(0, url.find("://"));
            tracker.owesCompleted = isCompleted_;
            trackers_.push_back(std::move(tracker));
        }
}

TrackerEvent AnnounceSchedule::eventFor(const Tracker& tracker) {
    if (!tracker.isStarted) return TrackerEvent::started;
    return tracker.owesCompleted ? TrackerEvent::completed : TrackerEvent::empty;
}

std::optional<AnnounceSchedule::TimePoint> AnnounceSchedule::dueAt(const Tracker& tracker, bool isShortOfPeers) {
    if (tracker.isAnnouncing) return std::nullopt;
    if (!tracker.lastEnd) return TimePoint();
    if (tracker.failuresInARow > 0) return *tracker.lastEnd + tracker.pause;
    if (eventFor(tracker) != TrackerEvent::empty) return *tracker.lastEnd;
    return *tracker.lastEnd + (isShortOfPeers ? std::min(tracker.pause, shortOfPeersInterval) : tracker.pause);
}

std::vector<AnnounceSchedule::Due> AnnounceSchedule::takeDue(Moment now, bool isShortOfPeers) {
    std::vector<Due> taken;
    for (Tracker& tracker : trackers_) {
        const auto at = dueAt(tracker, isShortOfPeers);
        if (!at || *at > now.time) continue;
        tracker.isAnnouncing = true;
        tracker.row.status = TrackerRuntimeStatus::announcing;
        tracker.row.nextAnnounceAt.reset();
        taken.push_back({tracker.row.url, eventFor(tracker)});
    }
    return taken;
}

std::optional<AnnounceSchedule::TimePoint> AnnounceSchedule::nextDue(bool isShortOfPeers) const {
    std::optional<TimePoint> next;
    for (const Tracker& tracker : trackers_) {
        const auto at = dueAt(tracker, isShortOfPeers);
        if (at && (!next || *at < *next)) next = at;
    }
    return next;
}

void AnnounceSchedule::report(const Due& due, const TrackerAnnounceOutcome& outcome, Moment now) {
    Tracker* const tracker = find(due.tracker);
    if (tracker == nullptr || !tracker->isAnnouncing || due.event == TrackerEvent::stopped) return;
    TrackerRuntimeInfo& row = tracker->row;
    tracker->isAnnouncing = false;
    tracker->lastEnd = now.time;
    if (outcome.isSuccess()) {
        tracker->isStarted = true;
        if (due.event == TrackerEvent::completed) tracker->owesCompleted = false;
        tracker->failuresInARow = 0;
        tracker->pause = pauseFor(outcome.interval.value_or(minInterval.count()));
        row.status = TrackerRuntimeStatus::working;
        row.peersFound = static_cast<std::int64_t>(outcome.peers.size());
        row.seeders = outcome.complete;
        row.leechers = outcome.incomplete;
        row.interval = outcome.interval;
        row.lastAnnounceAt = now.date;
        row.lastError.reset();
    } else {
        tracker->pause = retryPause(++tracker->failuresInARow);
        row.status = TrackerRuntimeStatus::failed;
        ++row.failureCount;
        row.lastError = outcome.error;
    }
    row.nextAnnounceAt = now.date + (*dueAt(*tracker, false) - now.time);
}

void AnnounceSchedule::complete() {
    if (std::exchange(isCompleted_, true)) return;
    for (Tracker& tracker : trackers_) tracker.owesCompleted = true;
}

std::vector<AnnounceSchedule::Due> AnnounceSchedule::takeStops() {
    std::vector<Due> taken;
    for (Tracker& tracker : trackers_) {
        if (tracker.isStarted) taken.push_back({tracker.row.url, TrackerEvent::stopped});
        Tracker fresh;
        fresh.row = std::move(tracker.row);
        fresh.row.status = TrackerRuntimeStatus::idle;
        fresh.row.nextAnnounceAt.reset();
        fresh.owesCompleted = tracker.owesCompleted;
        tracker = std::move(fresh);
    }
    return taken;
}

std::vector<TrackerRuntimeInfo> AnnounceSchedule::rows() const {
    std::vector<TrackerRuntimeInfo> rows;
    rows.reserve(trackers_.size());
    for (const Tracker& tracker : trackers_) rows.push_back(tracker.row);
    return rows;
}

AnnounceSchedule::Tracker* AnnounceSchedule::find(std::string_view url) {
    const auto found = std::find_if(trackers_.begin(), trackers_.end(),
                                    [&](const Tracker& tracker) { return tracker.row.url == url; });
    return found == trackers_.end() ? nullptr : &*found;
}

}  // namespace skein
