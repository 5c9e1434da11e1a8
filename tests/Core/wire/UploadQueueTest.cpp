#include "Core/wire/ReceiveBuffer.h"
#include "Core/wire/UploadQueue.h"
#include "public/common/SpeedTracker.h"

#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;

TEST(UploadQueue, answersMoreAtOnceWhileThePeerIsQuick) {
    UploadQueue queue;
    for (int i = 0; i < 200; ++i) ASSERT_TRUE(queue.push({i, 0, 16384}));
    EXPECT_EQ(queue.takeBatch(1 << 30).size(), 4U);
    for (int i = 0; i < 5; ++i) queue.noteWriteTime(1ms);
    EXPECT_EQ(queue.takeBatch(1 << 30).size(), 64U);
    for (int i = 0; i < 9; ++i) queue.noteWriteTime(2s);
    EXPECT_EQ(queue.takeBatch(1 << 30).size(), 1U);
    EXPECT_EQ(queue.takeBatch(1).size(), 1U) << "one at least, whatever the limit";
}

TEST(UploadQueue, refusesWhatNoPeerAsks) {
    UploadQueue queue;
    for (const BlockRequest& odd :
         {BlockRequest{-1, 0, 16384}, {0, -1, 16384}, {0, 0, 0}, {0, 0, UploadQueue::maxBlockLength + 1}})
        EXPECT_FALSE(queue.push(odd));
    EXPECT_TRUE(queue.isEmpty());
}

TEST(ReceiveBuffer, keepsTheStreamWholeWhileItGrowsAndCompacts) {
    ReceiveBuffer buffer;
    std::uint8_t next = 0;
    std::uint8_t expected = 0;
    std::size_t largest = 0;
    for (int round = 0; round < 2000; ++round) {
        const auto room = buffer.prepare();
        ASSERT_FALSE(room.empty());
        largest = std::max(largest, room.size());
        const std::size_t count = std::min<std::size_t>(room.size(), static_cast<std::size_t>(round % 97) * 400 + 1);
        for (std::size_t i = 0; i < count; ++i) room[i] = next++;
        buffer.commit(count);
        const std::size_t used = buffer.unread().size() * 2 / 3;
        for (std::size_t i = 0; i < used; ++i) ASSERT_EQ(buffer.unread()[i], expected++);
        buffer.consume(used);
    }
    EXPECT_LE(largest, 2 * ReceiveBuffer::largeSize);
}

TEST(SpeedTracker, followsTheLastSeconds) {
    SpeedTracker tracker;
    Clock::TimePoint now{};
    for (int i = 0; i < 40; ++i) tracker.add(1000, now += 250ms);
    EXPECT_NEAR(tracker.bytesPerSecond(now), 4000, 250);
    EXPECT_EQ(tracker.bytesPerSecond(now + 6s), 0);
    EXPECT_EQ(tracker.total(), 40'000);
}

}  // namespace
}  // namespace skein
