#pragma once

#include "Core/wire/ExtendedMessage.h"
#include "public/common/Bytes.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// The extension protocol of one connection: what the peer announced, and what its extended messages mean. No sockets:
/// bytes in, bytes and callbacks out. Source: BEP 10, BEP 9, BEP 11.
///
/// Owner: the connection. Thread: the session's strand.
class PeerExtensions {
public:
    /// The ids on which we receive.
    static constexpr std::uint8_t localMetadataID = 1;
    static constexpr std::uint8_t localPexID = 2;
    static constexpr std::int64_t metadataPieceSize = 16384;
    /// An announced size beyond this (the hashes of 1.6 million pieces) counts as none.
    static constexpr std::int64_t maxMetadataSize = std::int64_t{32} << 20U;
    /// Peers taken from one exchange message, and how often one is read.
    static constexpr std::size_t maxPexPeers = 100;
    static constexpr std::chrono::seconds pexInterval{60};
    /// Metadata pieces that a peer asked for and we have not sent; what it asks beyond is not answered.
    static constexpr std::size_t maxWaitingRequests = maxMetadataSize / metadataPieceSize;
    /// A peer gets the whole info dictionary so many times an hour: once, and again after a failure on its side.
    static constexpr std::size_t metadataCopiesAnHour = 3;

    /// What no extended message needs to be longer than, and how often a peer may change what it announced: parsing
    /// costs us more than sending costs the peer.
    static constexpr std::size_t maxBodySize = std::size_t{32} << 10U;
    static constexpr int maxHandshakes = 16;

    struct Callbacks {
        /// The peer's extended handshake was read; it may come again with news.
        std::function<void()> onHandshake;
        std::function<void(std::int64_t piece, ByteView data)> onMetadataReceived;
        std::function<void(std::int64_t piece)> onMetadataRejected;
        std::function<void(const std::vector<PeerAddress>& peers)> onPexPeersReceived;
        /// The info dictionary's bytes once they are verified, else nothing. Without it requests stay unanswered.
        std::function<ByteView()> metadataToServe;
    };

    PeerExtensions(std::string address, Clock& clock, FileLogger& log)
        : address_(std::move(address)), clock_(clock), log_(log) {}

    void setCallbacks(Callbacks callbacks) { callbacks_ = std::move(callbacks); }

    /// The ids under which the peer receives; 0: it has not announced the extension.
    std::uint8_t remoteMetadataID() const noexcept { return remoteMetadataID_; }
    std::uint8_t remotePexID() const noexcept { return remotePexID_; }
    /// Bytes of the info dictionary as announced; 0 when unknown.
    std::int64_t metadataSize() const noexcept { return metadataSize_; }
    /// How many block requests the peer keeps, when it said so.
    std::optional<std::int64_t> requestQueue() const noexcept { return requestQueue_; }

    /// `body` is that of a message `extended`. What is malformed is ignored; a remote id outside 0…255 is a fatal
    /// fault.
    void handleExtended(ByteView body);

    /// The bodies of messages to send.
    static Bytes handshake(std::optional<std::int64_t> metadataSize, bool offersPex);
    /// Nothing when the peer does not take such requests.
    std::optional<Bytes> metadataRequest(std::int64_t piece) const;

    bool owesMetadata() const noexcept { return !asked_.empty(); }
    /// The next answer to a metadata request. Only when `owesMetadata()`.
    Bytes takeMetadataAnswer();

private:
    void handleHandshake(ByteView payload);
    void handleMetadataMessage(ByteView payload);
    void handlePexMessage(ByteView payload);
    void noteRequest(std::int64_t piece);
    bool mayServe(std::size_t piecesInAll);
    Bytes addressed(std::uint8_t extendedID, const Bytes& payload) const;

    const std::string address_;  // as log lines show it
    Clock& clock_;
    FileLogger& log_;
    Callbacks callbacks_;
    int handshakes_ = 0;
    std::uint8_t remoteMetadataID_ = 0;
    std::uint8_t remotePexID_ = 0;
    std::int64_t metadataSize_ = 0;
    std::optional<std::int64_t> requestQueue_;
    std::optional<Clock::TimePoint> lastPexAt_;
    std::deque<std::int64_t> asked_;
    Clock::TimePoint servingSince_{};
    std::size_t servedPieces_ = 0;  // since then
};

}  // namespace skein
