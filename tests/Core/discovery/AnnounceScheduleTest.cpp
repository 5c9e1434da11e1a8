#include "Core/discovery/AnnounceSchedule.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre, testing::IsEmpty;

class AnnounceScheduleTest : public testing::Test {
protected:
    /// What is due now, as "event" or "event@tracker" when there are several trackers.
    std::vector<std::string> due(bool isShort = false) {
        std::vector<std::string> texts;
        const auto dueNow = schedule.takeDue(now, isShort);
        if (!dueNow.empty()) taken = dueNow;
        for (const auto& one : dueNow) {
            std::string text(one.event == TrackerEvent::empty ? "empty" : textOf(one.event));
            texts.push_back(schedule.rows().size() == 1 ? text : text + "@" + one.tracker);
        }
        return texts;
    }
    void report(const TrackerAnnounceOutcome& outcome) {
        for (const auto& one : taken) schedule.report(one, outcome, now);
    }
    void answer(std::int64_t interval = 1800) {
        report({.peers = {{"1.2.3.4", 80}}, .interval = interval, .complete = 3});
    }
    void fail() { report({.error = "Tracker request timed out"}); }
    void advance(std::chrono::seconds duration) {
        now.time += duration;
        now.date += duration;
    }
    std::chrono::seconds untilDue(bool isShort = false) const {
        const auto at = schedule.nextDue(isShort);
        return at ? std::chrono::duration_cast<std::chrono::seconds>(*at - now.time) : -1s;
    }

    AnnounceSchedule schedule{{{"udp://a:1"}}};
    AnnounceSchedule::Moment now{AnnounceSchedule::TimePoint(1h),
                                 std::chrono::sys_days(std::chrono::January / 1 / 2026)};
    std::vector<AnnounceSchedule::Due> taken;
};

TEST_F(AnnounceScheduleTest, startsOnceThenAsksAtTheTrackersIntervalWithinBounds) {
    EXPECT_THAT(due(), ElementsAre("started"));
    EXPECT_THAT(due(), IsEmpty());
    EXPECT_EQ(schedule.nextDue(false), std::nullopt);
    for (const auto& [interval, pause] : {std::pair(1800L, 1800s), {5, 60s}, {1'000'000'000'000, 86'400s}}) {
        answer(interval);
        EXPECT_EQ(untilDue(), pause);
        EXPECT_EQ(untilDue(true), 60s);
        advance(pause - 1s);
        EXPECT_THAT(due(), IsEmpty());
        advance(1s);
        EXPECT_THAT(due(), ElementsAre("empty"));
    }
    answer();
    advance(60s);
    EXPECT_THAT(due(true), ElementsAre("empty")) << "a download short of peers";
}

TEST_F(AnnounceScheduleTest, aFailingTrackerIsTriedAgainAfterGrowingPauses) {
    for (const auto pause : {15s, 30s, 60s, 120s, 240s, 480s, 960s, 1800s, 1800s}) {
        EXPECT_THAT(due(), ElementsAre("started"));
        fail();
        EXPECT_EQ(untilDue(true), pause);
        advance(pause);
    }
    due();
    answer();
    advance(1800s);
    due();
    fail();
    EXPECT_EQ(untilDue(), 15s);
}

TEST_F(AnnounceScheduleTest, completionIsToldOnceAndNotBeforeTheStart) {
    due();
    schedule.complete();
    fail();
    advance(15s);
    EXPECT_THAT(due(), ElementsAre("started"));
    answer();
    EXPECT_EQ(untilDue(), 0s);
    EXPECT_THAT(due(), ElementsAre("completed"));
    fail();
    advance(15s);
    EXPECT_THAT(due(), ElementsAre("completed"));
    answer();
    schedule.complete();
    advance(1800s);
    EXPECT_THAT(due(), ElementsAre("empty"));
}

TEST_F(AnnounceScheduleTest, onlyTrackersThatKnowOfTheStartAreToldOfTheStop) {
    due();
    answer();
    schedule.add({{"udp://a:1", "http://b/"}, {"http://c/"}});
    EXPECT_THAT(due(), ElementsAre("started@http://b/", "started@http://c/"));
    fail();
    std::vector<std::string> told;
    for (const auto& stop : schedule.takeStops()) told.push_back(stop.tracker + " " + std::string(textOf(stop.event)));
    EXPECT_THAT(told, ElementsAre("udp://a:1 stopped"));
    EXPECT_THAT(schedule.takeStops(), IsEmpty());
    answer();  // comes too late
    EXPECT_EQ(schedule.rows()[1].status, TrackerRuntimeStatus::idle);
    EXPECT_THAT(due(), ElementsAre("started@udp://a:1", "started@http://b/", "started@http://c/"));
}

TEST_F(AnnounceScheduleTest, rowsTellWhatHappened) {
    TrackerRuntimeInfo row{.id = "udp://a:1", .url = "udp://a:1", .scheme = "udp"};
    EXPECT_THAT(schedule.rows(), ElementsAre(row));
    due();
    row.status = TrackerRuntimeStatus::announcing;
    EXPECT_THAT(schedule.rows(), ElementsAre(row));
    fail();
    row.status = TrackerRuntimeStatus::failed;
    row.failureCount = 1;
    row.lastError = "Tracker request timed out";
    row.nextAnnounceAt = now.date + 15s;
    EXPECT_THAT(schedule.rows(), ElementsAre(row));
    advance(15s);
    due();
    answer(900);
    EXPECT_THAT(schedule.rows(),
                ElementsAre(TrackerRuntimeInfo{"udp://a:1", "udp://a:1", "udp", TrackerRuntimeStatus::working, 1, 3, 0,
                                               900, 1, now.date, now.date + 900s, std::nullopt}));
}

TEST_F(AnnounceScheduleTest, aTorrentWithTooManyTrackersGetsItsFirst) {
    std::vector<std::string> many;
    for (int i = 0; i < 1000; ++i) many.push_back("http://" + std::to_string(i) + "/");
    schedule.add({many});
    EXPECT_EQ(due().size(), maxTrackersOfTorrent);
}

}  // namespace
}  // namespace skein
