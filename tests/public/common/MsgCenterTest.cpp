#include "public/common/MsgCenter/MsgCenter.h"
#include "tests/support/Simulation.h"

#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <thread>

namespace skein {
namespace {

using testing::ElementsAre;

struct Sum {
    int key = 0;
    int total = 0;
    bool absorb(const Sum& later) { return later.key == key && (total += later.total, true); }
    friend bool operator==(const Sum&, const Sum&) = default;
};

class MsgCenterTest : public testing::Test {
protected:
    template <class Message>
    Subscription collect(std::vector<Message>& into) {
        return center.subscribe<Message>(simulation.executor(),
                                         [&](const Message& message) { into.push_back(message); });
    }

    Simulation simulation;
    MsgCenter center;
};

TEST_F(MsgCenterTest, aSubscriptionThatEndedHearsNothingNotEvenWhatWaits) {
    std::vector<int> untilTwo;
    Subscription ending;
    ending = center.subscribe<int>(simulation.executor(), [&](int number) {
        untilTwo.push_back(number);
        if (number == 2) ending.end();
    });
    for (const int number : {1, 2, 3}) center.publish(number);
    simulation.settle();
    center.publish(4);
    simulation.settle();
    EXPECT_THAT(untilTwo, ElementsAre(1, 2));
}

TEST_F(MsgCenterTest, hasWhatIsPublishedWaitJoinedOrTheOldestDropped) {
    std::vector<Sum> sums;
    std::vector<int> numbers;
    const auto summing = collect(sums);
    const auto counting = collect(numbers);
    for (const int key : {1, 1, 2, 1}) center.publish(Sum{key, 1});
    constexpr int tooMany = Subscriber<int>::mostWaiting + 10;
    for (int number = 0; number < tooMany; ++number) center.publish(number);
    EXPECT_THAT(numbers, ElementsAre()) << "within publish, the publisher may be in the middle of something";
    simulation.settle();
    EXPECT_THAT(sums, ElementsAre(Sum{1, 2}, Sum{2, 1}, Sum{1, 1}));
    EXPECT_EQ(counting.lost(), 10U);
    EXPECT_EQ(numbers.front(), 10);
    EXPECT_EQ(numbers.back(), tooMany - 1);
}

TEST_F(MsgCenterTest, keepsTheOrderOfEachPublisherAcrossThreads) {
    asio::thread_pool pool(3);
    std::array<std::vector<std::pair<int, int>>, 2> heard;
    std::vector<Subscription> subscriptions;
    for (auto& list : heard)
        subscriptions.push_back(center.subscribe<std::pair<int, int>>(
            asio::make_strand(pool), [&list](const auto& message) { list.push_back(message); }));
    std::vector<std::thread> publishers;
    for (int publisher = 0; publisher < 3; ++publisher)
        publishers.emplace_back([&, publisher] {
            for (int number = 0; number < 1000; ++number) center.publish(std::pair(publisher, number));
        });
    for (std::thread& publisher : publishers) publisher.join();
    pool.join();
    EXPECT_EQ(heard[0], heard[1]);
    std::array<int, 3> next{};
    for (const auto& [publisher, number] : heard[0]) EXPECT_EQ(number, next[static_cast<std::size_t>(publisher)]++);
    EXPECT_THAT(next, testing::Each(1000));
}

}  // namespace
}  // namespace skein
