#pragma once

#include "Core/engine/RequestScheduler.h"
#include "public/common/Bytes.h"
#include "public/common/Clock.h"

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace skein {

/// Decides which peer is asked for which piece of the info dictionary, and puts the pieces together. No sockets: the
/// session sends what this returns and reports what comes. Source: BEP 9.
///
/// Peers that announce the same size fill one buffer together. When its hash turns out wrong, one of them lied: those
/// that filled it are asked last, each with a buffer of its own, so that the next failure names the liar.
/// Owner: the session. Thread: the session's strand.
class MetadataFetch {
public:
    static constexpr std::int64_t pieceSize = 16384;
    /// A peer that sends nothing useful for this long is abandoned; its pieces are asked of others.
    static constexpr std::chrono::seconds patience{10};
    /// Unanswered requests at one peer: 1 MiB, which is most info dictionaries whole.
    static constexpr std::size_t maxAsked = 64;
    /// Peers that are asked for the same piece when there is nothing else to ask them for.
    static constexpr std::size_t maxAskers = 3;
    /// Buffers at once; each holds what has come, 32 MiB at most.
    static constexpr std::size_t maxBuffers = 3;

    /// A peer that helped to fill more buffers with a wrong hash is not asked, nor listened to, any more.
    static constexpr int forgivenFailures = 2;

    struct Request {
        PeerKey peer = 0;
        std::int64_t piece = 0;
    };

    /// A whole info dictionary, its hash not yet checked, and who sent it.
    struct Candidate {
        Bytes infoData;
        std::vector<PeerKey> contributors;
    };

    struct Progress {
        std::size_t held = 0;
        std::size_t needed = 0;
    };

    static std::size_t piecesNeeded(std::int64_t sizeBytes) noexcept {
        return static_cast<std::size_t>((sizeBytes + pieceSize - 1) / pieceSize);
    }

    /// The peer offers an info dictionary of `sizeBytes` (above 0). Said again with another size, it starts anew.
    void addPeer(PeerKey peer, std::int64_t sizeBytes);
    void removePeer(PeerKey peer);
    /// Abandoned and rejecting peers are asked again.
    void forgive();

    /// The requests to send now. Abandons peers whose time is over.
    std::vector<Request> requestsDue(Clock::TimePoint now);
    /// When `requestsDue` will have something new to say although nothing came.
    std::optional<Clock::TimePoint> nextDeadline() const;

    /// True when the piece was stored: of a peer that offers metadata, in range and of the right length.
    bool receive(PeerKey peer, std::int64_t piece, ByteView data, Clock::TimePoint now);
    void reject(PeerKey peer, std::int64_t piece);

    /// A whole buffer, emptied by that.
    std::optional<Candidate> takeCandidate();
    /// Its hash was wrong: the contributors are asked last.
    void blame(const Candidate& candidate);

    /// Of the fullest buffer.
    Progress progress() const;

private:
    /// The size, and the peer that has the buffer for itself (0: all that announce the size).
    using BufferKey = std::pair<std::int64_t, PeerKey>;

    struct Peer {
        std::int64_t sizeBytes = 0;
        int failures = 0;  // buffers with a wrong hash that it helped to fill
        bool isAbandoned = false;
        std::set<std::size_t> asked;
        std::set<std::size_t> rejected;
        Clock::TimePoint lastUseful;

        BufferKey bufferKey(PeerKey self) const { return {sizeBytes, failures == 0 ? 0 : self}; }
    };

    struct Buffer {
        explicit Buffer(std::size_t piecesNeeded) : askers(piecesNeeded) {}

        std::map<std::size_t, Bytes> pieces;
        std::vector<std::uint8_t> askers;  // for each piece, how many peers are asked for it now
        std::set<PeerKey> contributors;
    };

    static bool mayAsk(const Peer& peer) noexcept { return !peer.isAbandoned && peer.failures <= forgivenFailures; }
    void abandonSilentPeers(Clock::TimePoint now);
    std::vector<PeerKey> peersToAsk() const;
    Buffer* bufferFor(const BufferKey& key);
    bool isInUse(const BufferKey& key) const;
    static std::optional<std::size_t> nextPiece(const Peer& peer, const Buffer& buffer);
    bool forgetRequest(PeerKey key, Peer& peer, std::size_t piece);
    void forgetRequests(PeerKey key, Peer& peer);

    std::map<PeerKey, Peer> peers_;
    std::map<BufferKey, Buffer> metadataBuffers_;
};

}  // namespace skein
