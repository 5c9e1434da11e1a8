#pragma once

#include "Core/wire/MSEPrime.h"
#include "Core/wire/MessageDecoder.h"
#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerError.h"
#include "Core/wire/PeerExtensions.h"
#include "Core/wire/PeerHandshake.h"
#include "Core/wire/PeerTraits.h"
#include "Core/wire/PeerWireTransport.h"
#include "Core/wire/ReceiveBuffer.h"
#include "Core/wire/UploadQueue.h"
#include "Core/wire/WireMessage.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/Notifier.h"
#include "public/common/SpeedTracker.h"
#include "public/common/TaskGroup.h"
#include "public/common/Throttle.h"

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace skein {

/// One peer-wire conversation with one peer about one torrent. Source: BEP 3.
///
/// Owner: the session, which awaits `stop()` before it lets go. Never connected again: the session makes a new one.
/// Thread: the strand given, which is the session's: what flows per block changes no thread. Callbacks come on it.
class PeerConnection final : private MessageSink {
public:
    /// A connection that has been silent for this long sends a keep-alive (peers drop others after about 120 s).
    static constexpr std::chrono::seconds keepAliveAfter{100};
    /// A peer silent for this long is dropped.
    static constexpr std::chrono::seconds dropAfter{240};
    static constexpr std::chrono::seconds defaultConnectTimeout{5};

    enum class EncryptionPreference : std::uint8_t { plaintext, mseRC4 };

    struct Environment {
        Strand strand;
        Clock& clock;
        FileLogger& log;
        Throttle& sessionDownload;  ///< shared by the session's connections
        Throttle& sessionUpload;
    };

    struct Identity {
        SHA1Digest infoHash;
        PeerID peerID;  ///< ours
    };

    /// What the session does with the peer's messages; each may be left out.
    struct Callbacks {
        std::function<void(std::uint32_t index, std::uint32_t begin, ByteView block)> onPieceReceived;
        std::function<void(ByteView bitfield)> onBitfieldReceived;
        std::function<void(std::uint32_t index)> onHaveReceived;
        std::function<void(bool isChoked)> onChokeChanged;
        std::function<void(bool isInterested)> onInterestChanged;
        /// Awaited after each run of received blocks and before the next read: here a slow disk slows the peer.
        std::function<asio::awaitable<void>()> onBlocksReceived;
        /// Fills the blocks that may be served; the others stay not `ok` and unanswered.
        std::function<asio::awaitable<void>(std::vector<BlockRead>&)> onPieceRequested;
        std::function<void(std::int64_t count)> onBytesUploaded;
        PeerExtensions::Callbacks extensions;
        /// Once, when an established conversation ends, with the reason's text.
        std::function<void(const std::string& reason)> onDisconnected;
    };

    struct TrafficCounters {
        std::int64_t bytesDownloaded = 0;
        std::int64_t bytesUploaded = 0;
        std::int64_t uiBytesDownloaded = 0;
        std::int64_t uiBytesUploaded = 0;
    };

    struct RuntimeStats {
        double downloadRate = 0;  ///< bytes a second
        double uploadRate = 0;
        std::int64_t downloaded = 0;
        std::int64_t uploaded = 0;
    };

    PeerConnection(const Environment& environment, PeerAddress address, const Identity& identity,
                   std::unique_ptr<PeerWireTransport> transport, PeerDirection direction);
    PeerConnection(const PeerConnection&) = delete;
    PeerConnection& operator=(const PeerConnection&) = delete;
    ~PeerConnection();

    /// The torrent's, once it is known: what the peer says of others is not kept.
    void setPieceCount(int count);
    /// Not from inside a callback.
    void setCallbacks(Callbacks callbacks);

    /// Dials and shakes hands, in an encrypted stream if asked to. Throws PeerException or boost::system::system_error.
    asio::awaitable<void> connect(std::chrono::seconds timeout = defaultConnectTimeout,
                                  EncryptionPreference encryptionPreference = EncryptionPreference::plaintext,
                                  MSEPrime prime = MSEPrime::deployed);
    /// The same for an accepted connection: the peer's handshake comes first.
    asio::awaitable<void> accept(std::chrono::seconds timeout = defaultConnectTimeout);
    /// After `connect` or `accept`, when the callbacks are set: messages flow from here on.
    void begin();
    /// Ends the conversation; `onDisconnected` follows.
    void disconnect() noexcept { transport_->cancel(); }
    /// Returns when nothing of the connection runs any more. `onDisconnected` does not come any more.
    asio::awaitable<void> stop();

    /// Queued and written in order, several in one write. Dropped when the conversation is over.
    void sendInterested();
    void sendNotInterested();
    void sendUnchoke();
    /// What the peer has asked for and not got is dropped.
    void sendChoke();
    /// A peer that has the piece itself is in no hurry to hear of it: it does with the next message, or at `flush`.
    void sendHave(int piece);
    void flush();
    void sendBitfield(ByteView bitfield);
    void sendRequests(std::span<const BlockRequest> requests);
    void sendCancel(const BlockRequest& request);
    /// Only to peers that support extensions; `metadataSize` is that of the info dictionary, when we have it.
    void sendExtendedHandshake(std::optional<std::int64_t> metadataSize, bool offersPex);
    void requestMetadataPiece(std::int64_t piece);

    const PeerAddress& address() const noexcept { return address_; }
    PeerDirection direction() const noexcept { return direction_; }
    PeerTransport transportKind() const noexcept { return transport_->kind(); }
    PeerEncryptionStatus encryptionStatus() const noexcept { return encryptionStatus_; }
    /// The transport was opened, whatever came of the conversation.
    bool hasReachedPeer() const noexcept { return hasReachedPeer_; }
    /// After encryption failed: with the other prime it may succeed.
    bool mayNeedOtherPrime() const noexcept { return mayNeedOtherPrime_; }
    bool isConnected() const noexcept { return isConnected_; }
    /// A message of ours has gone out, after the handshake.
    bool hasSpoken() const noexcept { return hasSpoken_; }
    /// Why a message of ours could not be written; nothing when none failed, or the peer was gone before.
    const std::optional<std::string>& writeFailure() const noexcept { return writeFailure_; }
    std::optional<Clock::TimePoint> connectedAt() const noexcept { return connectedAt_; }
    /// When the peer last sent something.
    std::optional<Clock::TimePoint> lastActiveAt() const noexcept { return lastActiveAt_; }
    /// Since when the peer was asked for blocks, did not choke us and sent none.
    std::optional<Clock::TimePoint> owesBlocksSince() const noexcept { return owesBlocksSince_; }
    bool amChoking() const noexcept { return amChoking_; }
    bool amInterested() const noexcept { return amInterested_; }
    bool peerChoking() const noexcept { return peerChoking_; }
    bool peerInterested() const noexcept { return peerInterested_; }
    bool supportsExtended() const noexcept { return supportsExtended_; }
    const std::optional<PeerID>& remotePeerID() const noexcept { return remotePeerID_; }
    const PeerExtensions& extensions() const noexcept { return extensions_; }
    /// The last bitfield, and every `have` since; nothing when neither came.
    const std::optional<Bytes>& peerBitfield() const noexcept { return peerBitfield_; }
    bool hasPiece(std::uint32_t index) const noexcept;
    RuntimeStats runtimeStats() const;

    TrafficCounters snapshotTrafficCounters() const noexcept { return counters_; }
    /// The protocol counters since the last call: each byte is reported once.
    TrafficCounters drainTrafficCounters() noexcept;
    /// 0 = unlimited; each direction is paced by itself.
    void setSpeedLimit(std::int64_t bytesPerSecond) noexcept;

private:
    void onChoke(bool isChoked) override;
    void onInterested(bool isInterested) override;
    void onHave(std::uint32_t piece) override;
    void onBitfield(ByteView bitfield) override;
    void onRequest(std::uint32_t piece, std::uint32_t begin, std::uint32_t length) override;
    void onCancel(std::uint32_t piece, std::uint32_t begin, std::uint32_t length) override;
    void onPiece(std::uint32_t piece, std::uint32_t begin, ByteView block) override;
    void onExtended(ByteView body) override;
    void onOversized(std::size_t length) override;

    asio::awaitable<void> dialAndShakeHands(EncryptionPreference encryptionPreference, MSEPrime prime);
    asio::awaitable<void> negotiateEncryption(MSEPrime prime);
    asio::awaitable<void> shakeHandsAsAccepted();
    asio::awaitable<void> establish(std::chrono::seconds timeout, asio::awaitable<void> steps);
    void logOverUTP(std::string_view step) const;
    asio::awaitable<void> sendHandshake();
    asio::awaitable<void> receiveHandshake();

    asio::awaitable<void> messageLoop();
    asio::awaitable<void> receiveMessages();
    asio::awaitable<void> handleReceived();
    asio::awaitable<void> paceDownload(std::int64_t bytes);
    asio::awaitable<void> waitForUploads();
    asio::awaitable<void> writeLoop();
    asio::awaitable<void> writePending();
    void answerMetadataRequests();
    asio::awaitable<void> writeUploads(std::vector<BlockRequest> batch);
    asio::awaitable<void> paceUpload(std::int64_t bytes);
    asio::awaitable<void> watchSilence();
    std::int64_t uploadPortion() const noexcept;
    void enqueue(MessageID id, ByteView body = {});
    void wakeWriter();
    void handleDisconnect(const std::string& reason);

    const Environment environment_;
    const PeerAddress address_;
    const Identity identity_;
    const PeerDirection direction_;
    std::unique_ptr<PeerWireTransport> transport_;
    Callbacks callbacks_;

    bool isConnected_ = false;
    bool hasSpoken_ = false;
    std::optional<std::string> writeFailure_;
    bool amChoking_ = true;
    bool amInterested_ = false;
    bool peerChoking_ = true;
    bool peerInterested_ = false;
    bool supportsExtended_ = false;
    PeerExtensions extensions_;
    bool isReading_ = false;  // false while the reader waits for us, so that the wait is not the peer's silence
    std::optional<Bytes> peerBitfield_;
    std::size_t mostBitfieldBytes_;
    std::optional<PeerID> remotePeerID_;
    PeerEncryptionStatus encryptionStatus_ = PeerEncryptionStatus::plaintext;
    bool hasReachedPeer_ = false;
    bool mayNeedOtherPrime_ = false;
    std::optional<Clock::TimePoint> connectedAt_;
    std::optional<Clock::TimePoint> lastActiveAt_;
    std::optional<Clock::TimePoint> owesBlocksSince_;
    std::optional<Clock::TimePoint> writingSince_;
    Clock::TimePoint lastSentAt_{};

    ReceiveBuffer received_;
    std::int64_t receivedBlockBytes_ = 0;  // in the run of messages being handled
    Bytes pendingControl_;
    UploadQueue uploads_;
    Notifier writerWake_;
    Notifier uploadsShrank_;

    TrafficCounters counters_;
    SpeedTracker uiDownloadSpeedTracker_;
    SpeedTracker uiUploadSpeedTracker_;
    Throttle download_;
    Throttle upload_;
    TaskGroup tasks_;
};

}  // namespace skein
