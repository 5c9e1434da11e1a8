#include "Core/engine/TrafficLedger.h"

#include <gmock/gmock.h>

namespace skein {
namespace {

using testing::ElementsAre, testing::Field, testing::IsEmpty;

auto report(const std::string& user, std::int64_t verified, std::int64_t sent) {
    return testing::AllOf(Field(&PeerReport::peerUserId, user), Field(&PeerReport::verifiedBytes, verified),
                          Field(&PeerReport::sentBytes, sent));
}

class TrafficLedgerTest : public testing::Test {
protected:
    TrafficLedgerTest() {
        ledger.setParty(direct, {LinkKind::platform, "bob", false});
        ledger.setParty(relayed, {LinkKind::relay, "bob", false});
        ledger.setParty(freeloader, {LinkKind::platform, "eve", true});
        ledger.setParty(stranger, {});
    }
    void add(PeerKey peer, std::int64_t received, std::int64_t verified, std::int64_t sent) {
        ledger.addReceived(peer, received);
        ledger.addVerified(peer, verified);
        ledger.addSent(peer, sent);
    }
    HeartbeatPayload drain(const std::string& eventID) {
        return ledger.drain({"alice", eventID, "hash", ResourceStatus::leeching, UploadMode::paid});
    }

    /// As charged, as received, and sent.
    static std::array<std::int64_t, 3> deltasOf(const HeartbeatPayload& payload) {
        return {payload.downloadDelta, payload.rawDownloadDelta, payload.uploadDelta};
    }

    static constexpr PeerKey direct = 1, relayed = 2, freeloader = 3, stranger = 4;
    TrafficLedger ledger;
};

TEST_F(TrafficLedgerTest, tellsBytesBySourceAndByUser) {
    add(direct, 100, 64, 7);
    add(relayed, 20, 16, 0);
    add(freeloader, 0, 0, 1000);
    add(stranger, 3, 0, 5);
    const HeartbeatPayload payload = drain("e1");
    EXPECT_THAT(deltasOf(payload), ElementsAre(80, 123, 1012));
    EXPECT_EQ(payload.downloadedBySource, (BytesBySource{100, 3, 20}));
    EXPECT_THAT(payload.peers, ElementsAre(report("bob", 80, 7))) << "who is served for free owes nothing";
}

TEST_F(TrafficLedgerTest, givesAReportOutAgainAsItWasUntilItIsConfirmedOnce) {
    add(direct, 20, 10, 1);
    const HeartbeatPayload first = drain("e1");
    add(direct, 7, 5, 2);
    ledger.removePeer(direct);
    const HeartbeatPayload repeated = drain("e2");
    EXPECT_EQ(repeated.eventID, "e1");
    EXPECT_EQ(repeated.downloadDelta, 10);
    EXPECT_TRUE(ledger.commit(repeated));
    EXPECT_FALSE(ledger.commit(first)) << "an overlapping heartbeat confirmed the same report";

    const HeartbeatPayload rest = drain("e3");
    EXPECT_THAT(deltasOf(rest), ElementsAre(5, 7, 2));
    EXPECT_THAT(rest.peers, ElementsAre(report("bob", 5, 2))) << "the peer has left, its bytes have not";
    EXPECT_TRUE(ledger.commit(rest));
    const HeartbeatPayload nothing = drain("e4");
    EXPECT_THAT(deltasOf(nothing), ElementsAre(0, 0, 0));
    EXPECT_THAT(nothing.peers, IsEmpty());
}

TEST_F(TrafficLedgerTest, startsAnewForAnotherUser) {
    add(direct, 10, 10, 0);
    add(relayed, 0, 0, 1);
    drain("e1");
    ledger.forget();
    EXPECT_EQ(ledger.uncommitted(), BytesBySource());
    ledger.addVerified(direct, 3);
    ledger.addSent(stranger, 2);
    const HeartbeatPayload payload = drain("e2");
    EXPECT_EQ(payload.eventID, "e2");
    EXPECT_THAT(deltasOf(payload), ElementsAre(3, 0, 2));
    EXPECT_THAT(payload.peers, ElementsAre(report("bob", 3, 0)));
}

}  // namespace
}  // namespace skein
