#include "Core/engine/StallReason.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace skein {
namespace {

TEST(StallReason, namesTheCauseThatIsNearestToTheUser) {
    StallFacts facts;
    const auto cause = [&] { return stallReasonOf(facts)->cause; };
    EXPECT_EQ(cause(), StallCause::noPeersFound);
    facts.trackerRefusal = "Tracker error: banned";
    EXPECT_EQ(stallReasonOf(facts)->text, "No tracker answers as it should (Tracker error: banned)");
    EXPECT_EQ(stallReasonOf(facts)->detail, "Tracker error: banned");
    facts.peersFound = 3;
    EXPECT_EQ(cause(), StallCause::noPeerReachable);
    EXPECT_EQ(stallReasonOf(facts)->detail, std::nullopt);
    facts.dialsInFlight = 1;
    EXPECT_EQ(stallReasonOf(facts), std::nullopt) << "it may yet be reached";
    facts.connected = 2;
    facts.isFetchingMetadata = true;
    EXPECT_EQ(cause(), StallCause::metadataNotOffered);
    facts.connectedWithMetadata = 1;
    EXPECT_EQ(stallReasonOf(facts), std::nullopt);
    facts.isFetchingMetadata = false;
    EXPECT_EQ(cause(), StallCause::piecesNotAvailable);
    facts.connectedWithPieces = 1;
    EXPECT_EQ(cause(), StallCause::allPeersChoke);
    facts.unchoking = 1;
    EXPECT_EQ(stallReasonOf(facts), std::nullopt);
    facts.storageProblem = "t/a: No space left on device";
    EXPECT_EQ(cause(), StallCause::folderUnusable);
    facts.storageErrno = ENOSPC;
    EXPECT_EQ(cause(), StallCause::diskFull);
    facts.goneInterface = "tun0";
    EXPECT_EQ(cause(), StallCause::diskFull) << "what is there already";
    facts.isPaused = true;
    EXPECT_EQ(stallReasonOf(facts)->sentence(), "Paused. Resume it.");
}

}  // namespace
}  // namespace skein
