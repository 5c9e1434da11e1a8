#include "public/common/Throttle.h"

#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;

TEST(ThrottleTest, severalKeepToOneRateAndEachToItsOwn) {
    const Clock::TimePoint now{10s};
    SharedThrottle all;
    Throttle first;
    Throttle second;
    first.share(&all);
    second.share(&all);
    EXPECT_EQ(first.book(1'000'000, now), 0s);
    EXPECT_FALSE(first.isLimited());
    all.setLimit(1000);
    EXPECT_TRUE(first.isLimited());
    EXPECT_EQ(first.portion(4000), 250);
    EXPECT_EQ(first.book(1000, now), 1s);
    EXPECT_EQ(second.book(1000, now), 2s);
    second.setLimit(100);
    EXPECT_EQ(second.portion(4000), 25);
    EXPECT_EQ(second.book(500, now + 2s), 5s);
    all.setLimit(2000);
    EXPECT_EQ(first.book(1000, now + 2s), 500ms) << "what was booked under another limit does not count";
    all.setLimit(0);
    EXPECT_EQ(first.book(1000, now + 2s), 0s);
}

}  // namespace
}  // namespace skein
