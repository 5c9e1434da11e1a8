#include "tests/Core/engine/SwarmFixture.h"
#include "tests/support/LoopbackTracker.h"

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre, testing::Field;

/// A session that may use but some local addresses, among peers and trackers of both families.
class BindingTest : public SwarmFixture {
protected:
    ~BindingTest() override {
        getter.reset();
        simulation.finish(tracker.stop());
        simulation.finish(otherTracker.stop());
    }

    void startBound(const std::string& binding) {
        Options options{.savePath = getterFolder.path()};
        options.discovery.namedPeers = {peer.address(), otherPeer.address()};
        options.discovery.extraTrackers = {tracker.udpURL(), tracker.httpURL(), otherTracker.udpURL(),
                                           otherTracker.httpURL()};
        getter = std::make_unique<TestSession>(simulation, infoHash, 'g', std::move(options), simulation.executor(),
                                               std::nullopt, LocalBinding(binding));
        getter->start(torrentData);
    }
    std::vector<std::string> trackerErrors() {
        std::vector<std::string> errors;
        for (const TrackerRuntimeInfo& row : getter->trackers) errors.push_back(row.lastError.value_or("none"));
        return errors;
    }
    void waitForTrackers() {
        simulation.runUntil([&] {
            for (const TrackerRuntimeInfo& row : getter->trackers)
                if (row.status == TrackerRuntimeStatus::announcing || row.status == TrackerRuntimeStatus::idle)
                    return false;
            return getter->trackers.size() == 4;
        });
    }

    ScriptedPeer peer{simulation.executor()};
    ScriptedPeer otherPeer{simulation.executor(), "::1"};
    LoopbackTracker tracker{simulation.executor()};
    LoopbackTracker otherTracker{simulation.executor(), {.address = "::1"}};
    std::unique_ptr<TestSession> getter;
};

TEST_F(BindingTest, everythingLeavesFromTheBoundAddressOrNotAtAll) {
    startBound("127.0.0.2");
    simulation.finish(peer.accept());
    EXPECT_EQ(peer.remoteHost(), "127.0.0.2");
    waitForTrackers();
    const std::string none = "There is no local address of this family to use (--bind)";
    EXPECT_THAT(trackerErrors(), ElementsAre("none", "none", none, "The host cannot be reached: " + none));
    const auto fromThere = Field(&LoopbackTracker::Seen::peer, Field(&PeerAddress::host, "127.0.0.2"));
    EXPECT_THAT(tracker.announces(), ElementsAre(fromThere, fromThere));
    EXPECT_EQ(otherTracker.announces().size(), 0U);
    simulation.advance(30s);
    EXPECT_FALSE(otherPeer.isKnockedAt());
    EXPECT_TRUE(getter->hasLogged("[Direct] skip " + otherPeer.address().description()));
    EXPECT_FALSE(getter->hasLogged("→ " + otherPeer.address().description())) << "not over uTP either";
}

TEST_F(BindingTest, anInterfaceStandsForItsAddressesOfBothFamilies) {
    startBound("lo");
    simulation.finish(peer.accept());
    simulation.finish(otherPeer.accept());
    EXPECT_EQ(otherPeer.remoteHost(), "::1");
    waitForTrackers();
    EXPECT_THAT(trackerErrors(), ElementsAre("none", "none", "none", "none"));
}

TEST_F(BindingTest, nothingLeavesWhileTheInterfaceIsGoneAndTheUserIsToldSo) {
    startBound("gone0");
    waitForTrackers();
    const std::string gone = "The network interface to use (--bind) is not there";
    const std::string unreachable = "The host cannot be reached: " + gone;
    EXPECT_THAT(trackerErrors(), ElementsAre(gone, unreachable, gone, unreachable));
    simulation.advance(30s);
    EXPECT_FALSE(peer.isKnockedAt() || otherPeer.isKnockedAt());
    ASSERT_TRUE(getter->stall);
    EXPECT_EQ(getter->stall->sentence(),
              "The network interface gone0 (--bind) is not there. Connect it again; the download goes on by itself.");
}

}  // namespace
}  // namespace skein
