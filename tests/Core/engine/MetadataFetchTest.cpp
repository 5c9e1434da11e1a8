#include "Core/engine/MetadataFetch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre, testing::IsEmpty, testing::UnorderedElementsAre;

constexpr PeerKey good = 1, liar = 2, silent = 3;

class MetadataFetchTest : public testing::Test {
protected:
    /// What is asked now, as pairs of peer and piece.
    std::vector<std::pair<PeerKey, std::int64_t>> due() {
        std::vector<std::pair<PeerKey, std::int64_t>> pairs;
        for (const auto& request : fetch.requestsDue(now)) pairs.emplace_back(request.peer, request.piece);
        return pairs;
    }
    bool receive(PeerKey peer, std::int64_t piece, std::size_t size, std::uint8_t fill = 'x') {
        return fetch.receive(peer, piece, Bytes(size, fill), now);
    }

    Clock::TimePoint now{1h};
    MetadataFetch fetch;
};

TEST_F(MetadataFetchTest, countsPiecesAndTakesOnlyWhatFits) {
    EXPECT_FALSE(receive(good, 0, 16384)) << "offers nothing";
    fetch.addPeer(good, 16385);
    EXPECT_THAT(due(), ElementsAre(std::pair(good, 0), std::pair(good, 1)));
    for (const std::int64_t outside : {std::int64_t{-1}, std::int64_t{2}, std::numeric_limits<std::int64_t>::max()})
        EXPECT_FALSE(receive(good, outside, 1));
    EXPECT_FALSE(receive(good, 0, 16383));
    EXPECT_FALSE(receive(good, 1, 16384));
    EXPECT_TRUE(receive(good, 1, 1, 'b'));
    EXPECT_FALSE(fetch.takeCandidate());
    EXPECT_TRUE(receive(good, 0, 16384, 'a'));
    const auto candidate = fetch.takeCandidate().value();
    EXPECT_EQ(candidate.infoData, toBytes(std::string(16384, 'a') + 'b'));
    EXPECT_THAT(candidate.contributors, ElementsAre(good));
}

TEST_F(MetadataFetchTest, asksSideBySideAndAbandonsASilentPeer) {
    fetch.addPeer(silent, 100 * 16384);
    EXPECT_EQ(due().size(), MetadataFetch::maxAsked);
    fetch.addPeer(good, 100 * 16384);
    const auto asked = due();
    ASSERT_EQ(asked.size(), MetadataFetch::maxAsked);
    EXPECT_EQ(asked[0], std::pair(good, std::int64_t{64})) << "what the other was not asked for comes first";
    EXPECT_EQ(asked[36], std::pair(good, std::int64_t{63})) << "then the same from its end";
    for (int piece = 99; piece >= 36; --piece) {
        now += 100ms;
        EXPECT_TRUE(receive(good, piece, 16384));
        due();
    }
    EXPECT_EQ(fetch.nextDeadline(), Clock::TimePoint(1h + 10s));
    now = Clock::TimePoint(1h + 10s);
    due();
    for (int piece = 0; piece < 36; ++piece) EXPECT_TRUE(receive(good, piece, 16384));
    EXPECT_TRUE(fetch.takeCandidate());
}

TEST_F(MetadataFetchTest, findsTheGoodPeerBetweenALiarAndASilentOne) {
    for (const PeerKey peer : {liar, good}) fetch.addPeer(peer, 2 * 16384);
    due();
    receive(liar, 0, 16384, 'L');
    receive(good, 1, 16384);
    const auto mixed = fetch.takeCandidate().value();
    EXPECT_THAT(mixed.contributors, UnorderedElementsAre(good, liar));
    fetch.blame(mixed);
    fetch.addPeer(silent, 2 * 16384);
    EXPECT_THAT(due(), ElementsAre(std::pair(silent, 0), std::pair(silent, 1))) << "contributors are asked last";
    now += MetadataFetch::patience;
    EXPECT_THAT(due(),
                UnorderedElementsAre(std::pair(good, 0), std::pair(good, 1), std::pair(liar, 0), std::pair(liar, 1)));
    for (const PeerKey peer : {liar, good})
        for (const int piece : {0, 1}) receive(peer, piece, 16384, peer == liar ? 'L' : 'x');
    const auto first = fetch.takeCandidate().value();
    const auto second = fetch.takeCandidate().value();
    EXPECT_THAT(first.contributors, ElementsAre(good)) << "each has a buffer of its own now";
    EXPECT_EQ(first.infoData, Bytes(2 * 16384, 'x'));
    EXPECT_THAT(second.contributors, ElementsAre(liar));
}

TEST_F(MetadataFetchTest, passesARejectedPieceOnAndAsksAgainLater) {
    fetch.addPeer(good, 16384);
    due();
    fetch.reject(good, 0);
    fetch.reject(good, 7);
    EXPECT_THAT(due(), IsEmpty());
    EXPECT_FALSE(fetch.nextDeadline());
    fetch.addPeer(silent, 16384);
    EXPECT_THAT(due(), ElementsAre(std::pair(silent, 0)));
    fetch.removePeer(silent);
    fetch.forgive();
    EXPECT_THAT(due(), ElementsAre(std::pair(good, 0)));
}

TEST_F(MetadataFetchTest, keepsFewBuffersWhateverSizesAreAnnounced) {
    for (PeerKey peer = 1; peer <= 50; ++peer) fetch.addPeer(peer, peer * 16384);
    std::set<PeerKey> askedPeers;
    for (const auto& [peer, piece] : due()) askedPeers.insert(peer);
    EXPECT_EQ(askedPeers.size(), MetadataFetch::maxBuffers);
    now += MetadataFetch::patience;
    for (const auto& [peer, piece] : due()) askedPeers.insert(peer);
    EXPECT_EQ(askedPeers.size(), 2 * MetadataFetch::maxBuffers) << "the next ones get their turn";
}

}  // namespace
}  // namespace skein
