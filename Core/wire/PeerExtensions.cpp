#include "Core/wire/PeerExtensions.h"

#include "public/common/FatalFault.h"

#include <algorithm>

namespace skein {

namespace {

constexpr std::uint8_t handshakeID = 0;

std::uint8_t extendedIDFrom(std::int64_t id) {
    if (id < 0 || id > 255) fatalFault("Extended message id " + std::to_string(id) + " does not fit 8 bits");
    return static_cast<std::uint8_t>(id);
}

}  // namespace

void PeerExtensions::handleExtended(ByteView body) {
    if (body.empty() || body.size() > maxBodySize) return;
    const ByteView payload = body.subspan(1);
    if (body[0] == handshakeID) {
        handleHandshake(payload);
    } else if (body[0] == localMetadataID) {
        log_.debug("[Peer ", address_, "] Received ut_metadata message (", payload.size(), " bytes)");
        handleMetadataMessage(payload);
    } else if (body[0] == localPexID) {
        handlePexMessage(payload);
    }
}

void PeerExtensions::handleHandshake(ByteView payload) {
    if (handshakes_++ >= maxHandshakes) return;
    const auto announced = ExtendedHandshake::decode(payload);
    if (!announced) return;
    if (announced->metadataID) {
        remoteMetadataID_ = extendedIDFrom(*announced->metadataID);
        log_.debug("[Peer ", address_, "] Remote ut_metadata ID = ", int{remoteMetadataID_});
    }
    if (announced->pexID) {
        remotePexID_ = extendedIDFrom(*announced->pexID);
        log_.debug("[Peer ", address_, "] Remote ut_pex ID = ", int{remotePexID_});
    }
    if (announced->metadataSize) {
        const bool isSane = *announced->metadataSize > 0 && *announced->metadataSize <= maxMetadataSize;
        metadataSize_ = isSane ? *announced->metadataSize : 0;
        log_.debug("[Peer ", address_, "] Metadata size = ", metadataSize_);
    }
    if (announced->requestQueue) requestQueue_ = announced->requestQueue;
    if (callbacks_.onHandshake) callbacks_.onHandshake();
}

void PeerExtensions::handleMetadataMessage(ByteView payload) {
    const auto message = MetadataMessage::decode(payload);
    if (!message) return log_.debug("[Peer ", address_, "] Failed to decode metadata message dict");
    if (!message->type || !message->piece)
        return log_.debug("[Peer ", address_, "] Metadata message missing msg_type or piece");
    const std::int64_t piece = *message->piece;
    if (*message->type == MetadataMessage::request) {
        noteRequest(piece);
    } else if (*message->type == MetadataMessage::data) {
        if (message->bytes.empty())
            return log_.debug("[Peer ", address_, "] Metadata piece ", piece, " has no data after dict");
        log_.debug("[Peer ", address_, "] Got metadata piece ", piece, ": ", message->bytes.size(), " bytes");
        if (callbacks_.onMetadataReceived) callbacks_.onMetadataReceived(piece, message->bytes);
    } else if (*message->type == MetadataMessage::reject) {
        log_.debug("[Peer ", address_, "] Metadata piece ", piece, " rejected");
        if (callbacks_.onMetadataRejected) callbacks_.onMetadataRejected(piece);
    }
}

/// Peers may name each other often: once a minute is what well-behaved ones do, and all that is listened to.
void PeerExtensions::handlePexMessage(ByteView payload) {
    const Clock::TimePoint now = clock_.now();
    if (!callbacks_.onPexPeersReceived || (lastPexAt_ && now - *lastPexAt_ < pexInterval)) return;
    const std::vector<PeerAddress> peers = pex::decode(payload, maxPexPeers);
    if (peers.empty()) return;
    lastPexAt_ = now;
    log_.debug("[Peer ", address_, "] PEX found ", peers.size());
    callbacks_.onPexPeersReceived(peers);
}

// --- sending ---------------------------------------------------------------------------------------------------------

Bytes PeerExtensions::handshake(std::optional<std::int64_t> metadataSize, bool offersPex) {
    ExtendedHandshake handshake;
    handshake.metadataID = localMetadataID;
    if (offersPex) handshake.pexID = localPexID;
    handshake.metadataSize = metadataSize;
    Bytes body{handshakeID};
    append(body, handshake.encode());
    return body;
}

std::optional<Bytes> PeerExtensions::metadataRequest(std::int64_t piece) const {
    if (remoteMetadataID_ == 0) {
        log_.debug("[Peer ", address_, "] Cannot request metadata: remote doesn't support ut_metadata");
        return std::nullopt;
    }
    log_.debug("[Peer ", address_, "] Requesting metadata piece ", piece, " (extID=", int{remoteMetadataID_}, ")");
    return addressed(remoteMetadataID_, MetadataMessage::encodeRequest(piece));
}

void PeerExtensions::noteRequest(std::int64_t piece) {
    if (!callbacks_.metadataToServe || remoteMetadataID_ == 0 || asked_.size() >= maxWaitingRequests) return;
    asked_.push_back(piece);
}

Bytes PeerExtensions::takeMetadataAnswer() {
    const std::int64_t piece = asked_.front();
    asked_.pop_front();
    const ByteView all = callbacks_.metadataToServe();
    const auto size = static_cast<std::int64_t>(all.size());
    const std::int64_t pieces = (size + metadataPieceSize - 1) / metadataPieceSize;
    if (piece < 0 || piece >= pieces || !mayServe(static_cast<std::size_t>(pieces)))
        return addressed(remoteMetadataID_, MetadataMessage::encodeReject(piece));
    const std::int64_t begin = piece * metadataPieceSize;
    const ByteView bytes = all.subspan(static_cast<std::size_t>(begin),
                                       static_cast<std::size_t>(std::min(metadataPieceSize, size - begin)));
    return addressed(remoteMetadataID_, MetadataMessage::encodeData(piece, size, bytes));
}

bool PeerExtensions::mayServe(std::size_t piecesInAll) {
    const Clock::TimePoint now = clock_.now();
    if (servedPieces_ == 0 || now - servingSince_ >= std::chrono::hours(1)) {
        servingSince_ = now;
        servedPieces_ = 0;
    }
    return servedPieces_++ < metadataCopiesAnHour * piecesInAll;
}

Bytes PeerExtensions::addressed(std::uint8_t extendedID, const Bytes& payload) const {
    Bytes body{extendedID};
    append(body, payload);
    return body;
}

}  // namespace skein
