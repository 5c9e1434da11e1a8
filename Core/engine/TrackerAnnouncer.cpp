#include "Core/engine/TrackerAnnouncer.h"

#include "public/common/Within.h"

namespace skein {

TrackerAnnouncer::TrackerAnnouncer(const Environment& environment, std::unique_ptr<TrackerClient> client,
                                   const AnnounceSchedule::Tiers& tiers, Callbacks callbacks)
    : environment_(environment),
      client_(std::move(client)),
      callbacks_(std::move(callbacks)),
      schedule_(tiers),
      wake_(environment.strand),
      farewellEnded_(environment.strand),
      tasks_(environment.strand),
      farewells_(environment.strand) {}

TrackerAnnouncer::~TrackerAnnouncer() = default;

void TrackerAnnouncer::start() {
    reportRows();
    tasks_.spawn(announceLoop());
}

void TrackerAnnouncer::addTrackers(const AnnounceSchedule::Tiers& tiers) {
    schedule_.add(tiers);
    reportRows();
    wake_.notify();
}

void TrackerAnnouncer::noteCompleted() {
    schedule_.complete();
    wake_.notify();
}

/// Sleeps until the next announce is due or something changed.
asio::awaitable<void> TrackerAnnouncer::announceLoop() {
    for (;;) {
        announceDue();
        const auto next = schedule_.nextDue(callbacks_.isShortOfPeers());
        bool isDue = false;
        try {
            if (next) {
                co_await within(environment_.clock, *next - environment_.clock.now(), wake_.wait());
            } else {
                co_await wake_.wait();
            }
        } catch (const TimeLimitExceeded&) {
            isDue = true;
        }
        if (!isDue && tasks_.isStopping()) co_return;
    }
}

void TrackerAnnouncer::announceDue() {
    const auto due = schedule_.takeDue(moment(), callbacks_.isShortOfPeers());
    if (due.empty()) return;
    environment_.log.info("[Session] Announcing to ", due.size(), " trackers (streaming mode)...");
    std::string trackers;
    for (const AnnounceSchedule::Due& one : due) trackers.append(trackers.empty() ? "" : ", ").append(one.tracker);
    environment_.log.info("[Tracker] Will announce to ", due.size(), " trackers: ", trackers);
    announcesRunning_ += due.size();
    for (const AnnounceSchedule::Due& one : due) tasks_.spawn(announce(one));
    reportRows();
}

asio::awaitable<void> TrackerAnnouncer::announce(AnnounceSchedule::Due due) {
    const TrackerAnnounceOutcome outcome = co_await client_->announceOneDetailed(due.tracker, announceOf(due));
    schedule_.report(due, outcome, moment());
    reportRows();
    callbacks_.onAnswer(outcome);
    if (--announcesRunning_ == 0) environment_.log.info("[Session] All tracker tasks finished");
    wake_.notify();  // the loop waits for what this tracker is due next
}

TrackerAnnounce TrackerAnnouncer::announceOf(const AnnounceSchedule::Due& due) const {
    const Totals totals = callbacks_.totals();
    return {environment_.infoHash, totals.downloaded, totals.uploaded,
            totals.left,           due.event,         callbacks_.originOf(due.tracker)};
}

AnnounceSchedule::Moment TrackerAnnouncer::moment() const {
    return {environment_.clock.now(), environment_.clock.wallNow()};
}

void TrackerAnnouncer::reportRows() { callbacks_.onRowsChanged(schedule_.rows()); }

asio::awaitable<void> TrackerAnnouncer::stop() {
    co_await tasks_.stop();
    co_await sendStopped();
    co_await farewells_.stop();
    co_await client_->stop();
}

asio::awaitable<void> TrackerAnnouncer::sendStopped() {
    const auto stops = schedule_.takeStops();
    farewellsRunning_ = stops.size();
    for (const AnnounceSchedule::Due& due : stops) farewells_.spawn(sendOneStopped(due));
    const Clock::TimePoint until = environment_.clock.now() + stopLimit;
    while (farewellsRunning_ > 0 && environment_.clock.now() < until) {
        try {
            co_await within(environment_.clock, until - environment_.clock.now(), farewellEnded_.wait());
        } catch (const TimeLimitExceeded&) {
            co_return;
        }
    }
}

asio::awaitable<void> TrackerAnnouncer::sendOneStopped(AnnounceSchedule::Due due) {
    co_await client_->announceOneDetailed(due.tracker, announceOf(due));
    --farewellsRunning_;
    farewellEnded_.notify();
}

}  // namespace skein
