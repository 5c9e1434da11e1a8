#pragma once

#include "Core/engine/PieceManager.h"
#include "Core/engine/PieceSet.h"
#include "Core/wire/BlockRequest.h"
#include "public/common/Bytes.h"
#include "public/common/Clock.h"
#include "public/common/SpeedTracker.h"

#include <cstdint>
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

namespace skein {

/// Names a connected peer inside one session.
using PeerKey = std::uint32_t;

/// Decides which pieces each peer fetches and when each block is asked for. No sockets: the session sends what this
/// returns and reports what comes. A piece has one fetcher at a time; whoever takes it over from a peer that chokes,
/// leaves or is too slow is asked for the blocks that are still to come.
///
/// Owner: the session. Thread: the session's strand. `pieces` and `clock` outlive it.
class RequestScheduler {
public:
    /// Pieces being fetched at once in the whole session.
    static constexpr int maxInFlightPieces = 32;
    /// Unanswered requests at a peer that did not say how many it keeps: many drop what goes beyond.
    static constexpr int maxOutstandingRequests = 250;
    /// At one that keeps more: 16 MiB on their way are enough for any path.
    static constexpr int longestRequestQueue = 1000;
    /// A piece without a new block for this long is given back.
    static constexpr std::chrono::seconds stallLimit{30};
    /// A peer that has sent nothing for this long since it was asked gives its pieces up to one that waits idle.
    static constexpr std::chrono::seconds firstBlockLimit{10};
    /// Buffers of pieces in flight: very large pieces keep fewer than 32 in flight.
    static constexpr std::int64_t maxBufferedBytes = std::int64_t{256} << 20U;

    enum class BlockOutcome : std::uint8_t { accepted, whole, ignored };

    /// A piece taken from a peer, and the requests that it need not answer any more.
    struct GivenBack {
        PeerKey peer;
        std::vector<BlockRequest> cancelled;
    };

    /// What one peer sent of a piece.
    struct Contribution {
        PeerKey peer;
        std::int64_t bytes;
    };

    RequestScheduler(PieceManager& pieces, Clock& clock) : pieces_(pieces), clock_(clock) {}

    /// The other calls ignore a peer that was not added, or was removed: its last messages may still come.
    void addPeer(PeerKey peer);
    /// Gives its pieces back.
    void removePeer(PeerKey peer);
    void setBitfield(PeerKey peer, ByteView bitfield);
    void addPiece(PeerKey peer, std::uint32_t piece);
    /// What the peer said of how many requests it keeps.
    void setRequestQueue(PeerKey peer, std::int64_t length);
    /// A choking peer's pieces are given back at once.
    void setChoking(PeerKey peer, bool isChoking);

    /// The requests to send to `peer` now, in order.
    std::vector<BlockRequest> nextRequests(PeerKey peer);
    /// Peers that could be asked but have nothing to do, those waiting longest for a slot first.
    std::vector<PeerKey> idlePeers() const;
    /// There was nothing more to ask of `peer` when it was last to be asked.
    bool isExhausted(PeerKey peer) const;

    /// Stores a block that came from `peer`. Only what was asked of that peer is taken. After `whole` the caller
    /// completes the piece and calls `pieceEnded`.
    BlockOutcome receiveBlock(PeerKey peer, std::uint32_t piece, std::uint32_t begin, ByteView block);
    /// Who sent the blocks of a whole piece, also those who have left.
    std::vector<Contribution> contributionsTo(int piece) const;
    /// The piece verified, failed or could not be written: its slot is free.
    void pieceEnded(int piece);
    /// The piece was wrong, and came from several: from now on one peer has to send all of it, until it is good.
    void fetchFromOnePeer(int piece) { undivided_.insert(piece); }

    /// There is more to fetch than there was: peers that had nothing for us may be asked again.
    void forgetExhaustion();

    /// Takes back what stalls, what a peer holds beyond its share, and what a far faster idle peer would have sooner.
    /// Called about once a second.
    std::vector<GivenBack> giveBackSlowPieces();

    /// The piece's supplier; nothing when it is not in flight. For `pieceToPeer` displays and blame.
    std::optional<PeerKey> supplierOf(int piece) const;
    int piecesInFlight() const noexcept { return static_cast<int>(pieceToPeer_.size()); }
    /// The fraction of the torrent that the peer says it has.
    double progressOf(PeerKey peer) const;
    bool hasEverything(PeerKey peer) const;
    /// How many peers have a piece that is not there yet, and how many of those let us ask.
    struct Suppliers {
        std::size_t withPieces = 0;
        std::size_t unchoking = 0;
    };
    Suppliers suppliers() const;

private:
    struct PieceInFlight {
        PeerKey peer = 0;
        std::vector<BlockRequest> blocks;  // those that it was taken for, by their place in the piece
        std::size_t sent = 0;              // of blocks, in order
        std::size_t received = 0;          // of blocks, in any order
        Clock::TimePoint lastBlockAt;
        std::vector<Contribution> contributions;

        bool isWhole() const noexcept { return received == blocks.size(); }
    };

    struct Peer {
        PieceSet has;
        bool isChoking = true;
        bool isSlow = false;       // let a piece stall: gets no other while a faster peer is there
        bool isExhausted = false;  // has nothing to fetch; until it announces more or a piece comes back
        int outstanding = 0;
        int requestQueue = maxOutstandingRequests;
        std::vector<int> pieces;  // in flight, oldest first; only the last has blocks not yet asked for
        SpeedTracker rate;
    };

    bool takePiece(Peer& peer, PeerKey key);
    bool mayTakePiece(const Peer& peer) const;
    int shareOf(const Peer& peer) const;
    int depthOf(const Peer& peer) const;
    bool couldServe(const Peer& peer) const { return !peer.isChoking && !(peer.isExhausted && peer.pieces.empty()); }
    void addSurplus(std::vector<int>& pieces) const;
    bool fasterPeerThan(const Peer& slow) const;
    GivenBack giveBack(int piece);
    bool isSilent(const PieceInFlight& inFlight) const;
    std::optional<PeerKey> rescuerOf(int piece, const PieceInFlight& inFlight) const;

    PieceManager& pieces_;
    Clock& clock_;
    std::unordered_map<PeerKey, Peer> peers_;
    std::map<int, PieceInFlight> pieceToPeer_;
    std::map<int, std::vector<Contribution>> pendingPieceCredits_;  // of pieces that rest
    std::set<int> undivided_;                                       // pieces that are to come from one peer
};

}  // namespace skein
