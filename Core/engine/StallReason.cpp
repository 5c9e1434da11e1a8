#include "Core/engine/StallReason.h"

#include <cerrno>

namespace skein {

namespace {

StallReason storageReason(const StallFacts& facts) {
    if (facts.storageErrno == ENOSPC || facts.storageErrno == EDQUOT)
        return {StallCause::diskFull, "The disk is full (" + *facts.storageProblem + ")",
                "Make room; the download goes on by itself", facts.storageProblem};
    return {StallCause::folderUnusable, "The download folder cannot be written to (" + *facts.storageProblem + ")",
            "Make the folder available and writable; the download goes on by itself", facts.storageProblem};
}

StallReason unconnectedReason(const StallFacts& facts) {
    if (facts.peersFound == 0 && facts.trackerRefusal)
        return {StallCause::trackersRefuse, "No tracker answers as it should (" + *facts.trackerRefusal + ")",
                "Check the trackers' addresses, or add another one", facts.trackerRefusal};
    if (facts.peersFound == 0)
        return {StallCause::noPeersFound, "No peers found by any source",
                "Check the network, or add a tracker or a peer"};
    return {StallCause::noPeerReachable, "Peers were found, but none can be reached",
            "Check whether a firewall blocks outgoing connections"};
}

}  // namespace

std::optional<StallReason> stallReasonOf(const StallFacts& facts) {
    if (facts.isPaused) return StallReason{StallCause::paused, "Paused", "Resume it"};
    if (facts.storageProblem) return storageReason(facts);
    if (facts.goneInterface)
        return StallReason{StallCause::interfaceGone,
                           "The network interface " + *facts.goneInterface + " (--bind) is not there",
                           "Connect it again; the download goes on by itself", facts.goneInterface};
    if (facts.waitsToRetry)
        return StallReason{StallCause::waitingToRetry, "The connection was lost and is tried again soon",
                           "Wait, or check the network"};
    if (facts.connected == 0) {
        if (facts.dialsInFlight > 0) return std::nullopt;
        return unconnectedReason(facts);
    }
    if (facts.isFetchingMetadata) {
        if (facts.connectedWithMetadata > 0) return std::nullopt;
        return StallReason{StallCause::metadataNotOffered, "No connected peer offers the torrent's description",
                           "Wait for other peers, or use the .torrent file instead of the link"};
    }
    if (facts.connectedWithPieces == 0)
        return StallReason{StallCause::piecesNotAvailable, "No connected peer has a piece that is missing",
                           "Wait for a seeder, or add another tracker or a peer"};
    if (facts.unchoking == 0)
        return StallReason{StallCause::allPeersChoke, "All connected peers let us wait (choked)",
                           "Wait; peers give their slots away in turn"};
    return std::nullopt;
}

std::string_view textOf(StallCause cause) noexcept {
    switch (cause) {
        case StallCause::noPeersFound: return "noPeersFound";
        case StallCause::noPeerReachable: return "noPeerReachable";
        case StallCause::metadataNotOffered: return "metadataNotOffered";
        case StallCause::piecesNotAvailable: return "piecesNotAvailable";
        case StallCause::allPeersChoke: return "allPeersChoke";
        case StallCause::diskFull: return "diskFull";
        case StallCause::folderUnusable: return "folderUnusable";
        case StallCause::trackersRefuse: return "trackersRefuse";
        case StallCause::paused: return "paused";
        case StallCause::waitingToRetry: return "waitingToRetry";
        case StallCause::interfaceGone: return "interfaceGone";
    }
    return "";
}

}  // namespace skein
