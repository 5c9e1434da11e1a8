#include "Core/discovery/TrackerError.h"
#include "Core/discovery/TrackerReply.h"
#include "Core/formats/BEncoder.h"
#include "tests/support/FailureIn.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using testing::ElementsAre, testing::IsEmpty, testing::SizeIs;

std::string failureOf(std::string_view body) {
    return failureIn<TrackerException>([&] { TrackerReply::parseHTTPAnnounceReply(toBytes(body)); });
}

TrackerAnnounceResult parse(std::string_view body) {
    return TrackerReply::parseHTTPAnnounceReply(toBytes(body)).result;
}

/// The interval, the seeders and the leechers.
std::array<std::int64_t, 3> figuresOf(const TrackerAnnounceResult& result) {
    return {result.interval, result.complete, result.incomplete};
}

TEST(TrackerReply, compactListsDropAPartialEntryAtTheEnd) {
    EXPECT_THAT(TrackerReply::parseCompactIPv4Peers(Bytes{1, 2, 3, 4, 0x1A, 0xE1, 5, 6, 7, 8, 9}),
                ElementsAre(PeerAddress{"1.2.3.4", 6881}));
    Bytes two(18 + 17);
    two[0] = 0x20;
    two[17] = 80;
    EXPECT_THAT(TrackerReply::parseCompactIPv6Peers(two), ElementsAre(PeerAddress{"2000::", 80}));
    EXPECT_THAT(TrackerReply::parseCompactIPv4Peers(Bytes(5)), IsEmpty());
}

TEST(TrackerReply, listedPeersNeedAHostAndAPort) {
    const auto listed = parse(
        "d5:peersl"
        "d2:ip7:1.2.3.44:porti80eed2:ip11:2001:DB8::14:porti81eed2:ip12:peer.example4:porti82ee"
        "d2:ip7:1.2.3.5e"               // no port
        "d4:porti80ee"                  // no host
        "d2:ip7:1.2.3.64:porti65536ee"  // no such port
        "d2:ip3:a\nb4:porti80ee"        // no host name
        "i7e"
        "ee");
    EXPECT_THAT(listed.peers, ElementsAre(PeerAddress{"1.2.3.4", 80}, PeerAddress{"2001:db8::1", 81},
                                          PeerAddress{"peer.example", 82}));
}

TEST(TrackerReply, figuresThatAreMissingOrNegativeGetSensibleValues) {
    for (const char* body : {"de", "d8:completei-3e10:incompletei-1e8:intervali-5ee"}) {
        const auto result = parse(body);
        EXPECT_THAT(figuresOf(result), ElementsAre(1800, 0, 0));
        EXPECT_THAT(result.peers, IsEmpty());
    }
    EXPECT_EQ(parse("d8:intervali0ee").interval, 0);
    const auto huge =
        parse("d8:completei9223372036854775807e10:incompletei4294967296e8:intervali9223372036854775807ee");
    EXPECT_THAT(figuresOf(huge), ElementsAre(86'400, TrackerReply::largestCount, TrackerReply::largestCount));
}

TEST(TrackerReply, whatIsNoDictionaryIsInvalidAndAReasonIsAnError) {
    for (const char* body : {"", "<html>", "i5e", "l5:peerse", "d5:peers", "d5:peers99999999999:"})
        EXPECT_EQ(failureOf(body), "Invalid tracker response") << body;
    EXPECT_EQ(failureOf("d14:failure reason9:not today5:peers0:e"), "Tracker error: not today");
    EXPECT_EQ(failureOf("d14:failure reason7:\x1b[2J\xFFz\ne"), "Tracker error: ?[2J?z?");
    EXPECT_EQ(failureOf("d14:failure reason1001:" + std::string(499, 'x') + "é" + std::string(500, 'x') + "e"),
              "Tracker error: " + std::string(499, 'x'));
}

TEST(TrackerReply, takesNoMoreThanAShareOfAMillionPeers) {
    EXPECT_THAT(TrackerReply::parseCompactIPv4Peers(Bytes(6'000'000, 1)), SizeIs(TrackerReply::maxPeers));
    const BEncodeValue peer(BEncodeValue::Dictionary{{"ip", "1.2.3.4"}, {"port", 80}});
    const BEncodeValue reply(BEncodeValue::Dictionary{{"peers", BEncodeValue::List(10'000, peer)}});
    EXPECT_THAT(TrackerReply::parseHTTPAnnounceReply(BEncoder::encode(reply)).result.peers,
                SizeIs(TrackerReply::maxPeers));
}

TEST(TrackerReply, udpEntriesHaveTheSizeOfTheSocketsFamily) {
    Bytes reply(20);
    reply[3] = 1;
    reply[11] = 60;
    reply[15] = 2;
    reply[19] = 7;
    const auto bare = TrackerReply::parseUDPAnnounceReply(reply, PeerAddressFamily::ipv4);
    EXPECT_THAT(bare.peers, IsEmpty());
    EXPECT_THAT(figuresOf(bare), ElementsAre(60, 7, 2));
    reply.resize(20 + 18, 1);
    EXPECT_THAT(TrackerReply::parseUDPAnnounceReply(reply, PeerAddressFamily::ipv4).peers, SizeIs(3));
    EXPECT_THAT(TrackerReply::parseUDPAnnounceReply(reply, PeerAddressFamily::ipv6).peers, SizeIs(1));
    std::fill_n(reply.begin() + 8, 12, std::uint8_t{0xFF});
    const auto negative = TrackerReply::parseUDPAnnounceReply(reply, PeerAddressFamily::ipv6);
    EXPECT_THAT(figuresOf(negative), ElementsAre(1800, 0, 0));
    reply[3] = 2;
    EXPECT_EQ(failureIn<TrackerException>([&] { TrackerReply::parseUDPAnnounceReply(reply, PeerAddressFamily::ipv4); }),
              "Invalid tracker response");
}

}  // namespace
}  // namespace skein
