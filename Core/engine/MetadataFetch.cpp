#include "Core/engine/MetadataFetch.h"

#include <algorithm>
#include <limits>

namespace skein {

void MetadataFetch::addPeer(PeerKey peer, std::int64_t sizeBytes) {
    Peer& state = peers_[peer];
    if (state.sizeBytes == sizeBytes) return;
    forgetRequests(peer, state);
    state.sizeBytes = sizeBytes;
    state.rejected.clear();
}

void MetadataFetch::removePeer(PeerKey peer) {
    const auto found = peers_.find(peer);
    if (found == peers_.end()) return;
    forgetRequests(peer, found->second);
    peers_.erase(found);
}

void MetadataFetch::forgive() {
    for (auto& [key, peer] : peers_) {
        peer.isAbandoned = false;
        peer.rejected.clear();
    }
}

std::vector<MetadataFetch::Request> MetadataFetch::requestsDue(Clock::TimePoint now) {
    abandonSilentPeers(now);
    std::vector<Request> requests;
    for (const PeerKey key : peersToAsk()) {
        Peer& peer = peers_.at(key);
        Buffer* const buffer = bufferFor(peer.bufferKey(key));
        if (buffer == nullptr) continue;
        while (peer.asked.size() < maxAsked) {
            const auto piece = nextPiece(peer, *buffer);
            if (!piece) break;
            if (peer.asked.empty()) peer.lastUseful = now;
            peer.asked.insert(*piece);
            ++buffer->askers[*piece];
            requests.push_back({key, static_cast<std::int64_t>(*piece)});
        }
    }
    return requests;
}

void MetadataFetch::abandonSilentPeers(Clock::TimePoint now) {
    for (auto& [key, peer] : peers_) {
        if (peer.asked.empty() || now - peer.lastUseful < patience) continue;
        peer.isAbandoned = true;
        forgetRequests(key, peer);
    }
}

/// Those with the fewest failures; the others wait until these have nothing more to give.
std::vector<PeerKey> MetadataFetch::peersToAsk() const {
    int fewest = std::numeric_limits<int>::max();
    for (const auto& [key, peer] : peers_)
        if (mayAsk(peer) && peer.rejected.empty()) fewest = std::min(fewest, peer.failures);
    std::vector<PeerKey> keys;
    for (const auto& [key, peer] : peers_)
        if (mayAsk(peer) && peer.failures <= fewest) keys.push_back(key);
    return keys;
}

/// Nothing when there is no room for another buffer.
MetadataFetch::Buffer* MetadataFetch::bufferFor(const BufferKey& key) {
    if (const auto found = metadataBuffers_.find(key); found != metadataBuffers_.end()) return &found->second;
    if (metadataBuffers_.size() >= maxBuffers)
        std::erase_if(metadataBuffers_, [&](const auto& entry) { return !isInUse(entry.first); });
    if (metadataBuffers_.size() >= maxBuffers) return nullptr;
    return &metadataBuffers_.emplace(key, Buffer(piecesNeeded(key.first))).first->second;
}

bool MetadataFetch::isInUse(const BufferKey& key) const {
    return std::any_of(peers_.begin(), peers_.end(), [&](const auto& entry) {
        const Peer& peer = entry.second;
        return mayAsk(peer) && peer.rejected.empty() && peer.bufferKey(entry.first) == key;
    });
}

/// The missing piece that the fewest others are asked for. A second asker begins at the other end.
std::optional<std::size_t> MetadataFetch::nextPiece(const Peer& peer, const Buffer& buffer) {
    std::optional<std::size_t> best;
    std::size_t fewest = maxAskers;
    for (std::size_t piece = 0; piece < buffer.askers.size(); ++piece) {
        if (buffer.pieces.contains(piece) || peer.asked.contains(piece) || peer.rejected.contains(piece)) continue;
        const std::size_t askers = buffer.askers[piece];
        if (askers == 0) return piece;
        if (askers < fewest || (askers == fewest && best)) {
            best = piece;
            fewest = askers;
        }
    }
    return best;
}

bool MetadataFetch::forgetRequest(PeerKey key, Peer& peer, std::size_t piece) {
    if (peer.asked.erase(piece) == 0) return false;
    const auto buffer = metadataBuffers_.find(peer.bufferKey(key));
    if (buffer != metadataBuffers_.end() && buffer->second.askers[piece] > 0) --buffer->second.askers[piece];
    return true;
}

void MetadataFetch::forgetRequests(PeerKey key, Peer& peer) {
    const std::set<std::size_t> asked = peer.asked;
    for (const std::size_t piece : asked) forgetRequest(key, peer, piece);
}

std::optional<Clock::TimePoint> MetadataFetch::nextDeadline() const {
    std::optional<Clock::TimePoint> earliest;
    for (const auto& [key, peer] : peers_) {
        if (peer.asked.empty()) continue;
        const Clock::TimePoint deadline = peer.lastUseful + patience;
        if (!earliest || deadline < *earliest) earliest = deadline;
    }
    return earliest;
}

bool MetadataFetch::receive(PeerKey key, std::int64_t piece, ByteView data, Clock::TimePoint now) {
    const auto found = peers_.find(key);
    if (found == peers_.end()) return false;
    Peer& peer = found->second;
    if (piece < 0 || piece >= static_cast<std::int64_t>(piecesNeeded(peer.sizeBytes))) return false;
    const std::int64_t expected = std::min(pieceSize, peer.sizeBytes - piece * pieceSize);
    if (static_cast<std::int64_t>(data.size()) != expected) return false;
    if (peer.failures > forgivenFailures) return false;
    Buffer* const buffer = bufferFor(peer.bufferKey(key));
    if (buffer == nullptr) return false;
    const auto index = static_cast<std::size_t>(piece);
    // What comes late is welcome while it is missing; what nobody asked for must not spoil what is there.
    if (!peer.asked.contains(index) && buffer->pieces.contains(index)) return false;
    forgetRequest(key, peer, index);
    peer.isAbandoned = false;
    peer.lastUseful = now;
    buffer->pieces[index].assign(data.begin(), data.end());
    buffer->contributors.insert(key);
    return true;
}

void MetadataFetch::reject(PeerKey key, std::int64_t piece) {
    const auto found = peers_.find(key);
    if (found == peers_.end() || piece < 0) return;
    const auto index = static_cast<std::size_t>(piece);
    if (forgetRequest(key, found->second, index)) found->second.rejected.insert(index);
}

std::optional<MetadataFetch::Candidate> MetadataFetch::takeCandidate() {
    const auto whole = std::find_if(metadataBuffers_.begin(), metadataBuffers_.end(), [](const auto& entry) {
        return entry.second.pieces.size() == piecesNeeded(entry.first.first);
    });
    if (whole == metadataBuffers_.end()) return std::nullopt;
    Candidate candidate;
    candidate.infoData.reserve(static_cast<std::size_t>(whole->first.first));
    for (const auto& [index, bytes] : whole->second.pieces) append(candidate.infoData, bytes);
    candidate.contributors.assign(whole->second.contributors.begin(), whole->second.contributors.end());
    for (auto& [key, peer] : peers_)
        if (peer.bufferKey(key) == whole->first) forgetRequests(key, peer);
    metadataBuffers_.erase(whole);
    return candidate;
}

void MetadataFetch::blame(const Candidate& candidate) {
    for (const PeerKey key : candidate.contributors) {
        const auto found = peers_.find(key);
        if (found == peers_.end()) continue;
        forgetRequests(key, found->second);
        ++found->second.failures;
    }
}

MetadataFetch::Progress MetadataFetch::progress() const {
    Progress fullest;
    for (const auto& [key, buffer] : metadataBuffers_)
        if (fullest.needed == 0 || buffer.pieces.size() > fullest.held)
            fullest = {buffer.pieces.size(), piecesNeeded(key.first)};
    return fullest;
}

}  // namespace skein
