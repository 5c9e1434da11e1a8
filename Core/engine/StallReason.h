#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

/// Why a torrent moves no bytes.
enum class StallCause : std::uint8_t {
    noPeersFound,
    noPeerReachable,
    metadataNotOffered,
    piecesNotAvailable,
    allPeersChoke,
    diskFull,
    folderUnusable,
    trackersRefuse,
    paused,
    waitingToRetry,
    interfaceGone,
};

/// The one cause that a user is told, in words, and the one thing to do about it.
struct StallReason {
    StallCause cause = StallCause::noPeersFound;
    std::string text;
    std::string advice;
    std::optional<std::string> detail = {};  ///< what the system, the tracker or the settings say of it, without words

    /// Both in one line: "No peers found. Add a tracker …".
    std::string sentence() const { return text + ". " + advice + "."; }
    friend bool operator==(const StallReason&, const StallReason&) = default;
};

/// What the engine knows when bytes do not move.
struct StallFacts {
    bool isPaused = false;
    bool isFetchingMetadata = false;
    std::optional<std::string> storageProblem;  ///< the text of the failed write
    int storageErrno = 0;                       ///< of it; 0 when it was not a system call
    std::size_t peersFound = 0;                 ///< addresses that any source named since the start
    std::size_t dialsInFlight = 0;
    std::size_t connected = 0;
    std::size_t connectedWithMetadata = 0;      ///< that offer the info dictionary
    std::size_t connectedWithPieces = 0;        ///< that have a piece which we miss
    std::size_t unchoking = 0;                  ///< of those
    std::optional<std::string> trackerRefusal;  ///< the text of a tracker, when every tracker failed
    bool waitsToRetry = false;                  ///< a download that failed is tried again by itself
    std::optional<std::string> goneInterface;   ///< the name of the one to use, while nothing can leave
};

/// Nothing while there is hope that bytes are about to move.
std::optional<StallReason> stallReasonOf(const StallFacts& facts);

/// The name of a cause in JSON, such as "noPeersFound".
std::string_view textOf(StallCause cause) noexcept;

}  // namespace skein
