#pragma once

#include "Core/engine/PeerPool.h"
#include "Core/engine/PieceManager.h"
#include "Core/engine/RequestScheduler.h"

#include <functional>
#include <memory>
#include <vector>

namespace skein {

/// Moves blocks between the connected peers and the piece manager: asks, receives, announces what is complete, and
/// serves.
///
/// Lives as long as its piece manager: a recheck makes new ones. Owner: the session, which closes all connections,
/// then awaits `stop()`. Thread: the session's strand.
class PieceExchange {
public:
    struct Callbacks {
        /// So many bytes that a peer sent of a piece are good, and on the disk. Comes also while the exchange stops.
        std::function<void(PeerKey supplier, std::int64_t bytes)> onBytesVerified;
        std::function<void(int piece, PeerKey supplier)> onPieceCompleted;
        std::function<void()> onAllPiecesCompleted;
        /// In blocks, wanted or not.
        std::function<void(PeerKey from, std::int64_t bytes)> onBytesDownloaded;
        std::function<void(PeerKey to, std::int64_t bytes)> onBytesUploaded;
    };

    struct Environment {
        Strand strand;
        Clock& clock;
        FileLogger& log;
        PeerPool& pool;
        bool servesPeers = true;  ///< at first
        bool wantsPieces = true;  ///< false only serves what is there
    };

    PieceExchange(const Environment& environment, std::shared_ptr<PieceManager> pieces, Callbacks callbacks);

    /// What a new connection reports to. The callbacks hold this object's address.
    PeerConnection::Callbacks connectionCallbacks(PeerKey key);
    /// A peer whose messages are yet to flow.
    void addPeer(PeerPool::Peer& peer);
    /// A peer that was connected before there was anything to exchange.
    void adoptPeer(PeerPool::Peer& peer);
    /// How many requests the peer keeps, by its own account.
    void setRequestQueue(PeerKey key, std::int64_t length) { scheduler_.setRequestQueue(key, length); }
    void removePeer(PeerKey key);
    /// Whether peers get what they ask for, from now on.
    void setServing(bool servesPeers);
    /// Fills every peer's queue, those with nothing to do first.
    void driveActivePeerRequests();
    /// Pieces that were complete are missing.
    void wantAgain();
    /// Tells everyone of the pieces that could wait. Called about once a second.
    void flush();
    /// Moves pieces away from peers that are too slow with them.
    void relieveSlowPeers();
    /// Returns when no piece is being finished any more.
    asio::awaitable<void> stop() { return tasks_.stop(); }

    const RequestScheduler& scheduler() const noexcept { return scheduler_; }

private:
    bool dropIfBothAreComplete(PeerKey key);
    void unchokeIfInterested(PeerKey key);
    void requestPiecesFromPeer(PeerKey key);
    void logRequests(const std::vector<BlockRequest>& requests, const PeerPool::Peer& peer, bool areLast) const;
    void handleReceivedBlock(PeerKey key, std::uint32_t piece, std::uint32_t begin, ByteView block);
    asio::awaitable<void> afterBlocks(PeerKey key);
    asio::awaitable<void> finishPiece(int piece, PeerKey supplier);
    void onPieceCompleted(int piece, PeerKey supplier);
    void blameForBadPiece(int piece, const std::vector<RequestScheduler::Contribution>& contributions);
    asio::awaitable<void> readForUpload(std::vector<BlockRead>& reads);
    bool isWanting() const { return environment_.wantsPieces && !pieces_->isComplete(); }

    const Environment environment_;
    const std::shared_ptr<PieceManager> pieces_;
    const Callbacks callbacks_;
    bool servesPeers_;
    RequestScheduler scheduler_;
    TaskGroup tasks_;
};

}  // namespace skein
