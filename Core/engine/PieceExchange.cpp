#include "Core/engine/PieceExchange.h"

#include <cstdio>

namespace skein {

namespace {

constexpr int forgivenBadPieces = 1;

std::string percentOf(double fraction) {
    char text[16];
    std::snprintf(text, sizeof text, "%.1f", fraction * 100);
    return text;
}

}  // namespace

PieceExchange::PieceExchange(const Environment& environment, std::shared_ptr<PieceManager> pieces, Callbacks callbacks)
    : environment_(environment),
      pieces_(std::move(pieces)),
      callbacks_(std::move(callbacks)),
      servesPeers_(environment.servesPeers),
      scheduler_(*pieces_, environment.clock),
      tasks_(environment.strand) {}

PeerConnection::Callbacks PieceExchange::connectionCallbacks(PeerKey key) {
    PeerConnection::Callbacks callbacks;
    callbacks.onBitfieldReceived = [this, key](ByteView bitfield) {
        scheduler_.setBitfield(key, bitfield);
        if (!dropIfBothAreComplete(key)) requestPiecesFromPeer(key);
    };
    callbacks.onHaveReceived = [this, key](std::uint32_t piece) {
        scheduler_.addPiece(key, piece);
        requestPiecesFromPeer(key);
    };
    callbacks.onChokeChanged = [this, key](bool isChoked) {
        scheduler_.setChoking(key, isChoked);
        if (isChoked) {
            driveActivePeerRequests();
        } else {
            requestPiecesFromPeer(key);
        }
    };
    callbacks.onInterestChanged = [this, key](bool) { unchokeIfInterested(key); };
    callbacks.onPieceReceived = [this, key](std::uint32_t piece, std::uint32_t begin, ByteView block) {
        handleReceivedBlock(key, piece, begin, block);
    };
    callbacks.onBlocksReceived = [this, key] { return afterBlocks(key); };
    callbacks.onPieceRequested = [this](std::vector<BlockRead>& reads) { return readForUpload(reads); };
    callbacks.onBytesUploaded = [this, key](std::int64_t count) { callbacks_.onBytesUploaded(key, count); };
    return callbacks;
}

/// Two seeders have nothing to say to each other; the one that dialled leaves. True when the peer was dropped.
bool PieceExchange::dropIfBothAreComplete(PeerKey key) {
    const PeerPool::Peer* const peer = environment_.pool.find(key);
    if (peer == nullptr || isWanting() || !scheduler_.hasEverything(key)) return false;
    if (peer->isNamedByUser || peer->connection->direction() == PeerDirection::incoming) return false;
    environment_.pool.drop(key, "Both sides are complete", PeerDialer::publicPeerFailureCooldown);
    return true;
}

void PieceExchange::addPeer(PeerPool::Peer& peer) {
    scheduler_.addPeer(peer.key);
    if (pieces_->completedPieces() > 0) peer.connection->sendBitfield(pieces_->bitfield());
    if (isWanting()) peer.connection->sendInterested();
}

/// A bitfield may only be the first message: this peer learns what we have piece by piece.
void PieceExchange::adoptPeer(PeerPool::Peer& peer) {
    PeerConnection& connection = *peer.connection;
    scheduler_.addPeer(peer.key);
    if (connection.peerBitfield()) scheduler_.setBitfield(peer.key, *connection.peerBitfield());
    scheduler_.setChoking(peer.key, connection.peerChoking());
    if (pieces_->completedPieces() > 0) {
        const std::vector<bool> have = pieces_->completionBitmap();
        for (std::size_t piece = 0; piece < have.size(); ++piece)
            if (have[piece]) connection.sendHave(static_cast<int>(piece));
    }
    if (isWanting() && !connection.amInterested()) connection.sendInterested();
    if (!isWanting() && connection.amInterested()) connection.sendNotInterested();
    unchokeIfInterested(peer.key);
    requestPiecesFromPeer(peer.key);
}

void PieceExchange::unchokeIfInterested(PeerKey key) {
    PeerPool::Peer* const peer = environment_.pool.find(key);
    if (peer != nullptr && peer->connection->peerInterested() && peer->connection->amChoking() && servesPeers_)
        peer->connection->sendUnchoke();
}

void PieceExchange::setServing(bool servesPeers) {
    servesPeers_ = servesPeers;
    for (const auto& [key, peer] : environment_.pool.connected()) {
        if (servesPeers) {
            unchokeIfInterested(key);
        } else if (!peer->connection->amChoking()) {
            peer->connection->sendChoke();
        }
    }
}

void PieceExchange::removePeer(PeerKey key) {
    scheduler_.removePeer(key);
    driveActivePeerRequests();
}

void PieceExchange::requestPiecesFromPeer(PeerKey key) {
    if (!isWanting()) return;
    PeerPool::Peer* const peer = environment_.pool.find(key);
    if (peer == nullptr) return;
    const bool isLogged = environment_.log.wants(LogLevel::debug);
    const bool wasExhausted = isLogged && scheduler_.isExhausted(key);
    const std::vector<BlockRequest> requests = scheduler_.nextRequests(key);
    if (isLogged) logRequests(requests, *peer, !wasExhausted && scheduler_.isExhausted(key));
    if (!requests.empty()) peer->connection->sendRequests(requests);
}

void PieceExchange::logRequests(const std::vector<BlockRequest>& requests, const PeerPool::Peer& peer,
                                bool areLast) const {
    const std::string address = peer.connection->address().description();
    for (const BlockRequest& request : requests)
        if (request.begin == 0)
            environment_.log.debug("[Session] Requesting piece ", request.pieceIndex, " from ", address);
    if (areLast) environment_.log.debug("[Session] No more pieces to request from ", address);
}

void PieceExchange::driveActivePeerRequests() {
    for (const PeerKey key : scheduler_.idlePeers()) requestPiecesFromPeer(key);
    for (const auto& [key, peer] : environment_.pool.connected()) requestPiecesFromPeer(key);
}

void PieceExchange::wantAgain() {
    if (!isWanting()) return;
    scheduler_.forgetExhaustion();
    for (const auto& [key, peer] : environment_.pool.connected())
        if (!peer->connection->amInterested()) peer->connection->sendInterested();
    driveActivePeerRequests();
}

void PieceExchange::flush() {
    for (const auto& [key, peer] : environment_.pool.connected()) peer->connection->flush();
}

void PieceExchange::relieveSlowPeers() {
    for (const RequestScheduler::GivenBack& given : scheduler_.giveBackSlowPieces())
        if (const PeerPool::Peer* const peer = environment_.pool.find(given.peer))
            for (const BlockRequest& request : given.cancelled) peer->connection->sendCancel(request);
}

void PieceExchange::handleReceivedBlock(PeerKey key, std::uint32_t piece, std::uint32_t begin, ByteView block) {
    callbacks_.onBytesDownloaded(key, static_cast<std::int64_t>(block.size()));
    if (scheduler_.receiveBlock(key, piece, begin, block) == RequestScheduler::BlockOutcome::whole)
        tasks_.spawn(finishPiece(static_cast<int>(piece), key));
}

asio::awaitable<void> PieceExchange::afterBlocks(PeerKey key) {
    requestPiecesFromPeer(key);
    return pieces_->roomToReceive();
}

asio::awaitable<void> PieceExchange::finishPiece(int piece, PeerKey supplier) {
    const std::vector<RequestScheduler::Contribution> contributions = scheduler_.contributionsTo(piece);
    const ReceiveBlockResult result = co_await pieces_->completePiece(piece);
    if (result == ReceiveBlockResult::completed)
        for (const auto& [peer, bytes] : contributions) callbacks_.onBytesVerified(peer, bytes);
    if (tasks_.isStopping()) co_return;
    scheduler_.pieceEnded(piece);
    if (result == ReceiveBlockResult::completed) {
        onPieceCompleted(piece, supplier);
    } else if (!pieces_->storageProblem()) {
        blameForBadPiece(piece, contributions);
    }
    for (const PeerKey idle : scheduler_.idlePeers()) requestPiecesFromPeer(idle);
    requestPiecesFromPeer(supplier);
}

void PieceExchange::onPieceCompleted(int piece, PeerKey supplier) {
    environment_.log.debug("[Session] ✓ Piece ", piece, " done (", pieces_->completedPieces(), ", ",
                           percentOf(pieces_->progress()), "%)");
    for (const auto& [key, peer] : environment_.pool.connected()) peer->connection->sendHave(piece);
    callbacks_.onPieceCompleted(piece, supplier);
    if (!pieces_->isComplete()) return;
    for (const auto& [key, peer] : environment_.pool.connected())
        if (peer->connection->amInterested()) peer->connection->sendNotInterested();
    callbacks_.onAllPiecesCompleted();
}

/// Of several suppliers nobody knows which one lied: the next one sends all of the piece, and answers for it alone.
void PieceExchange::blameForBadPiece(int piece, const std::vector<RequestScheduler::Contribution>& contributions) {
    if (contributions.size() != 1) return scheduler_.fetchFromOnePeer(piece);
    const PeerKey supplier = contributions.front().peer;
    PeerPool::Peer* const peer = environment_.pool.find(supplier);
    if (peer == nullptr || ++peer->badPieces <= forgivenBadPieces) return;
    environment_.log.info("[Session] ", peer->connection->address().description(), " sent ", peer->badPieces,
                          " pieces with a bad hash, dropping peer");
    environment_.pool.drop(supplier, "Peer sent bad pieces", PeerPool::badPeerCooldown);
}

asio::awaitable<void> PieceExchange::readForUpload(std::vector<BlockRead>& reads) { return pieces_->readBlocks(reads); }

}  // namespace skein
