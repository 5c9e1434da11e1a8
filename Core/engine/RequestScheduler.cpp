#include "Core/engine/RequestScheduler.h"

#include <algorithm>
#include <cmath>
#include <span>
#include <utility>

namespace skein {

namespace {

constexpr int blockSize = PieceManager::blockSize;
/// Enough for 1 MiB on its way before the first measurement.
constexpr int startDepth = 64;
constexpr int leastDepth = 8;
/// Requests for so much time of the measured rate keep a peer busy over any usual round trip.
constexpr double depthSeconds = 2.0;
/// A piece is worth moving to another peer when that one has it this many times sooner, and the wait is worth the work.
constexpr double rescueFactor = 4.0;
constexpr double rescueAfterSeconds = 5.0;

}  // namespace

void RequestScheduler::addPeer(PeerKey peer) { peers_[peer].has = PieceSet(pieces_.metaInfo().pieceCount()); }

void RequestScheduler::removePeer(PeerKey peer) {
    const auto found = peers_.find(peer);
    if (found == peers_.end()) return;
    const std::vector<int> held = found->second.pieces;
    for (const int piece : held) giveBack(piece);
    peers_.erase(peer);
}

void RequestScheduler::setBitfield(PeerKey peer, ByteView bitfield) {
    const auto found = peers_.find(peer);
    if (found == peers_.end()) return;
    Peer& state = found->second;
    state.has = PieceSet::fromBitfield(bitfield, pieces_.metaInfo().pieceCount());
    state.isExhausted = false;
    pieces_.updateAvailability(bitfield);
}

void RequestScheduler::addPiece(PeerKey peer, std::uint32_t piece) {
    const auto found = peers_.find(peer);
    if (found == peers_.end() || piece >= static_cast<std::uint32_t>(pieces_.metaInfo().pieceCount())) return;
    Peer& state = found->second;
    const int index = static_cast<int>(piece);
    if (state.has.contains(index)) return;
    state.has.insert(index);
    state.isExhausted = false;
    pieces_.markPeerHasPiece(index);
}

void RequestScheduler::setRequestQueue(PeerKey peer, std::int64_t length) {
    const auto found = peers_.find(peer);
    if (found == peers_.end()) return;
    found->second.requestQueue = static_cast<int>(std::clamp<std::int64_t>(length, 1, longestRequestQueue));
}

void RequestScheduler::setChoking(PeerKey peer, bool isChoking) {
    const auto found = peers_.find(peer);
    if (found == peers_.end()) return;
    Peer& state = found->second;
    state.isChoking = isChoking;
    if (!isChoking) return;
    const std::vector<int> held = state.pieces;
    for (const int piece : held) giveBack(piece);
}

std::vector<BlockRequest> RequestScheduler::nextRequests(PeerKey key) {
    std::vector<BlockRequest> requests;
    const auto found = peers_.find(key);
    if (found == peers_.end() || found->second.isChoking) return requests;
    Peer& peer = found->second;
    const int depth = depthOf(peer);
    // Asked in groups: fewer and larger writes here, and larger batches of answers there.
    if (peer.outstanding > depth - depth / 4) return requests;
    while (peer.outstanding < depth) {
        const auto last = peer.pieces.empty() ? pieceToPeer_.end() : pieceToPeer_.find(peer.pieces.back());
        const bool allSent = last == pieceToPeer_.end() || last->second.sent == last->second.blocks.size();
        if (allSent) {
            if (!takePiece(peer, key)) break;
            continue;
        }
        requests.push_back(last->second.blocks[last->second.sent++]);
        ++peer.outstanding;
    }
    return requests;
}

bool RequestScheduler::takePiece(Peer& peer, PeerKey key) {
    if (peer.isExhausted || !mayTakePiece(peer)) return false;
    const auto piece = pieces_.nextPiece(peer.has);
    if (!piece) {
        peer.isExhausted = !pieces_.storageProblem();
        return false;
    }
    PieceInFlight inFlight;
    inFlight.peer = key;
    inFlight.blocks = pieces_.blocksForPiece(*piece);
    inFlight.lastBlockAt = clock_.now();
    if (auto credits = pendingPieceCredits_.extract(*piece)) inFlight.contributions = std::move(credits.mapped());
    pieceToPeer_.emplace(*piece, std::move(inFlight));
    peer.pieces.push_back(*piece);
    return true;
}

bool RequestScheduler::mayTakePiece(const Peer& peer) const {
    if (piecesInFlight() >= maxInFlightPieces) return false;
    if (piecesInFlight() > 0 && pieces_.bufferedBytes() + pieces_.metaInfo().pieceLength > maxBufferedBytes)
        return false;
    if (peer.isSlow && fasterPeerThan(peer)) return false;
    return static_cast<int>(peer.pieces.size()) < shareOf(peer);
}

/// By measured rate. A peer that sent nothing yet counts as an average one, so that it gets its chance.
int RequestScheduler::shareOf(const Peer& peer) const {
    const Clock::TimePoint now = clock_.now();
    double measuredSum = 0;
    int measured = 0;
    int unmeasured = 0;
    for (const auto& [key, other] : peers_) {
        if (!couldServe(other)) continue;
        if (other.rate.total() == 0) {
            ++unmeasured;
        } else {
            measuredSum += other.rate.bytesPerSecond(now);
            ++measured;
        }
    }
    const double average = measured == 0 ? 1.0 : std::max(measuredSum / measured, 1.0);
    const double whole = measuredSum + average * unmeasured;
    const double own = peer.rate.total() == 0 ? average : peer.rate.bytesPerSecond(now);
    if (whole <= 0) return maxInFlightPieces;
    return std::clamp(static_cast<int>(maxInFlightPieces * own / whole), 1, maxInFlightPieces);
}

int RequestScheduler::depthOf(const Peer& peer) const {
    if (peer.rate.total() == 0) return std::min(startDepth, peer.requestQueue);
    const double blocks = peer.rate.bytesPerSecond(clock_.now()) * depthSeconds / blockSize;
    return std::min(std::max(static_cast<int>(std::min(blocks, 1e6)), leastDepth), peer.requestQueue);
}

std::vector<PeerKey> RequestScheduler::idlePeers() const {
    std::vector<PeerKey> idle;
    for (const auto& [key, peer] : peers_)
        if (!peer.isChoking && !peer.isExhausted && peer.pieces.empty()) idle.push_back(key);
    return idle;
}

bool RequestScheduler::isExhausted(PeerKey peer) const {
    const auto found = peers_.find(peer);
    return found != peers_.end() && found->second.isExhausted;
}

RequestScheduler::BlockOutcome RequestScheduler::receiveBlock(PeerKey key, std::uint32_t piece, std::uint32_t begin,
                                                              ByteView block) {
    if (piece >= static_cast<std::uint32_t>(pieces_.metaInfo().pieceCount())) return BlockOutcome::ignored;
    const auto found = pieceToPeer_.find(static_cast<int>(piece));
    if (found == pieceToPeer_.end() || found->second.peer != key) return BlockOutcome::ignored;
    PieceInFlight& inFlight = found->second;
    const auto asked = std::span(inFlight.blocks).first(inFlight.sent);
    const auto request = std::ranges::lower_bound(asked, std::int64_t{begin}, {}, &BlockRequest::begin);
    if (request == asked.end() || std::cmp_not_equal(request->begin, begin)) return BlockOutcome::ignored;
    if (std::cmp_not_equal(request->length, block.size())) return BlockOutcome::ignored;

    const auto stored = pieces_.storeBlock(static_cast<int>(piece), static_cast<int>(begin), block);
    if (stored == PieceManager::StoreResult::ignored) return BlockOutcome::ignored;
    const Clock::TimePoint now = clock_.now();
    Peer& peer = peers_.at(key);
    peer.rate.add(static_cast<std::int64_t>(block.size()), now);
    peer.isSlow = false;
    --peer.outstanding;
    ++inFlight.received;
    inFlight.lastBlockAt = now;
    if (inFlight.contributions.empty() || inFlight.contributions.back().peer != key)
        inFlight.contributions.push_back({key, 0});
    inFlight.contributions.back().bytes += static_cast<std::int64_t>(block.size());
    return stored == PieceManager::StoreResult::whole ? BlockOutcome::whole : BlockOutcome::accepted;
}

std::vector<RequestScheduler::Contribution> RequestScheduler::contributionsTo(int piece) const {
    const auto found = pieceToPeer_.find(piece);
    return found == pieceToPeer_.end() ? std::vector<Contribution>() : found->second.contributions;
}

void RequestScheduler::pieceEnded(int piece) {
    const auto found = pieceToPeer_.find(piece);
    if (found == pieceToPeer_.end()) return;
    if (pieces_.pieceState(piece) == PieceManager::State::completed) undivided_.erase(piece);
    if (const auto peer = peers_.find(found->second.peer); peer != peers_.end()) std::erase(peer->second.pieces, piece);
    pieceToPeer_.erase(found);
    if (pieces_.pieceState(piece) == PieceManager::State::missing) forgetExhaustion();
}

RequestScheduler::GivenBack RequestScheduler::giveBack(int piece) {
    const auto found = pieceToPeer_.find(piece);
    const PieceInFlight& inFlight = found->second;
    GivenBack result{inFlight.peer, {}};
    Peer& peer = peers_.at(inFlight.peer);
    std::erase(peer.pieces, piece);
    // A whole piece is being hashed and written: nothing is taken back, and `pieceEnded` frees the slot.
    if (inFlight.isWhole()) return result;
    peer.outstanding -= static_cast<int>(inFlight.sent - inFlight.received);
    result.cancelled.assign(inFlight.blocks.begin(),
                            inFlight.blocks.begin() + static_cast<std::ptrdiff_t>(inFlight.sent));
    if (undivided_.contains(piece)) {
        pieces_.resetPiece(piece);
    } else {
        pieces_.restPiece(piece);
        if (pieces_.isResting(piece)) pendingPieceCredits_[piece] = inFlight.contributions;
    }
    pieceToPeer_.erase(found);
    forgetExhaustion();
    return result;
}

void RequestScheduler::forgetExhaustion() {
    for (auto& [key, peer] : peers_) peer.isExhausted = false;
}

std::vector<RequestScheduler::GivenBack> RequestScheduler::giveBackSlowPieces() {
    const Clock::TimePoint now = clock_.now();
    std::vector<int> slow;
    for (const auto& [piece, inFlight] : pieceToPeer_) {
        if (inFlight.isWhole()) continue;
        const bool stalls = now - inFlight.lastBlockAt >= stallLimit;
        const bool isRescued = rescuerOf(piece, inFlight).has_value();
        if (stalls || isRescued) slow.push_back(piece);
        if (stalls || (isRescued && isSilent(inFlight))) peers_.at(inFlight.peer).isSlow = true;
    }
    if (piecesInFlight() >= maxInFlightPieces) addSurplus(slow);
    std::vector<GivenBack> result;
    result.reserve(slow.size());
    for (const int piece : slow) result.push_back(giveBack(piece));
    return result;
}

/// A peer that took its share before its rate was known gives back what it has not begun, newest first.
void RequestScheduler::addSurplus(std::vector<int>& pieces) const {
    for (const auto& [key, peer] : peers_) {
        const auto share = static_cast<std::size_t>(shareOf(peer));
        for (std::size_t held = peer.pieces.size(); held > share; --held) {
            const int piece = peer.pieces[held - 1];
            if (pieceToPeer_.at(piece).received == 0 && std::find(pieces.begin(), pieces.end(), piece) == pieces.end())
                pieces.push_back(piece);
        }
    }
}

bool RequestScheduler::fasterPeerThan(const Peer& slow) const {
    return std::any_of(peers_.begin(), peers_.end(), [&](const auto& entry) {
        return &entry.second != &slow && couldServe(entry.second) && !entry.second.isSlow;
    });
}

/// Its supplier unchoked us, was asked, and has never sent anything.
bool RequestScheduler::isSilent(const PieceInFlight& inFlight) const {
    return peers_.at(inFlight.peer).rate.total() == 0 && clock_.now() - inFlight.lastBlockAt >= firstBlockLimit;
}

/// An idle peer that has `piece` and would fetch what is left of it far sooner than its supplier will end it. Of a
/// silent supplier nothing is expected: any idle peer gets its chance.
std::optional<PeerKey> RequestScheduler::rescuerOf(int piece, const PieceInFlight& inFlight) const {
    const Clock::TimePoint now = clock_.now();
    const double rate = std::max(peers_.at(inFlight.peer).rate.bytesPerSecond(now), 1.0);
    const double remaining = static_cast<double>(inFlight.blocks.size() - inFlight.received) * blockSize / rate;
    if (remaining < rescueAfterSeconds) return std::nullopt;
    for (const auto& [key, peer] : peers_) {
        if (peer.isChoking || peer.isSlow || !peer.pieces.empty() || !peer.has.contains(piece)) continue;
        const double rescue = static_cast<double>(inFlight.blocks.size() - inFlight.received) * blockSize /
                              std::max(peer.rate.bytesPerSecond(now), 1.0);
        if (isSilent(inFlight) || rescue * rescueFactor < remaining) return key;
    }
    return std::nullopt;
}

std::optional<PeerKey> RequestScheduler::supplierOf(int piece) const {
    const auto found = pieceToPeer_.find(piece);
    return found == pieceToPeer_.end() ? std::nullopt : std::optional(found->second.peer);
}

double RequestScheduler::progressOf(PeerKey peer) const {
    const int pieceCount = pieces_.metaInfo().pieceCount();
    const auto found = peers_.find(peer);
    return found == peers_.end() || pieceCount == 0 ? 0 : static_cast<double>(found->second.has.count()) / pieceCount;
}

bool RequestScheduler::hasEverything(PeerKey peer) const {
    const auto found = peers_.find(peer);
    return found != peers_.end() && found->second.has.count() == pieces_.metaInfo().pieceCount();
}

RequestScheduler::Suppliers RequestScheduler::suppliers() const {
    Suppliers suppliers;
    for (const auto& [key, peer] : peers_) {
        const PieceSet& has = peer.has;
        const bool hasPieceInFlight = std::any_of(pieceToPeer_.begin(), pieceToPeer_.end(),
                                                  [&has](const auto& entry) { return has.contains(entry.first); });
        if (!hasPieceInFlight && !firstCommon(has, pieces_.missingSet())) continue;
        ++suppliers.withPieces;
        if (!peer.isChoking) ++suppliers.unchoking;
    }
    return suppliers;
}

}  // namespace skein
