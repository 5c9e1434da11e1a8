#include "Core/wire/PeerConnection.h"

#include "Core/wire/MSEHandshake.h"
#include "public/common/ErrorText.h"
#include "public/common/Random.h"
#include "public/common/Within.h"

#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <algorithm>
#include <limits>

namespace skein {

namespace {

/// Control messages that a peer does not read are not collected for ever.
constexpr std::size_t maxPendingControl = std::size_t{8} << 20U;
/// Metadata answers (16 KiB each) that go out in one write.
constexpr int metadataAnswersAWrite = 16;
/// What one peer's messages may cost before others have their turn: some hundred microseconds.
constexpr std::size_t workAtATime = 256;
/// What is kept of the pieces that a peer has while the torrent's number of pieces is not known.
constexpr std::size_t bitfieldBytesBeforeMetadata = std::size_t{32} << 10U;
constexpr std::int64_t largestRead = std::numeric_limits<std::int64_t>::max();

}  // namespace

PeerConnection::PeerConnection(const Environment& environment, PeerAddress address, const Identity& identity,
                               std::unique_ptr<PeerWireTransport> transport, PeerDirection direction)
    : environment_(environment),
      address_(std::move(address)),
      identity_(identity),
      direction_(direction),
      transport_(std::move(transport)),
      extensions_(address_.description(), environment.clock, environment.log),
      mostBitfieldBytes_(bitfieldBytesBeforeMetadata),
      writerWake_(environment.strand),
      uploadsShrank_(environment.strand),
      tasks_(environment.strand) {}

PeerConnection::~PeerConnection() = default;

void PeerConnection::setCallbacks(Callbacks callbacks) {
    extensions_.setCallbacks(std::move(callbacks.extensions));
    callbacks_ = std::move(callbacks);
}

// --- handshake -------------------------------------------------------------------------------------------------------

asio::awaitable<void> PeerConnection::connect(std::chrono::seconds timeout, EncryptionPreference encryptionPreference,
                                              MSEPrime prime) {
    return tasks_.call(establish(timeout, dialAndShakeHands(encryptionPreference, prime)));
}

asio::awaitable<void> PeerConnection::accept(std::chrono::seconds timeout) {
    return tasks_.call(establish(timeout, shakeHandsAsAccepted()));
}

asio::awaitable<void> PeerConnection::stop() {
    callbacks_.onDisconnected = nullptr;
    co_await tasks_.stop();
    isConnected_ = false;
    transport_->cancel();
}

asio::awaitable<void> PeerConnection::establish(std::chrono::seconds timeout, asio::awaitable<void> steps) {
    bool isLate = false;
    try {
        co_await within(environment_.clock, timeout, std::move(steps));
    } catch (const TimeLimitExceeded&) {
        isLate = true;
    } catch (...) {
        transport_->cancel();
        throw;
    }
    if (isLate) {
        transport_->cancel();
        const bool wasNegotiating = encryptionStatus_ == PeerEncryptionStatus::handshakeFailed;
        throw PeerException(wasNegotiating ? PeerError::encryptionHandshakeFailed : PeerError::timeout);
    }
    isConnected_ = true;
    connectedAt_ = lastActiveAt_ = lastSentAt_ = environment_.clock.now();
}

void PeerConnection::begin() {
    tasks_.spawn(messageLoop());
    tasks_.spawn(writeLoop());
    tasks_.spawn(watchSilence());
}

asio::awaitable<void> PeerConnection::dialAndShakeHands(EncryptionPreference encryptionPreference, MSEPrime prime) {
    co_await transport_->start();
    hasReachedPeer_ = true;
    if (encryptionPreference == EncryptionPreference::mseRC4) co_await negotiateEncryption(prime);
    logOverUTP("send BT handshake ");
    co_await sendHandshake();
    logOverUTP("wait BT handshake ");
    co_await receiveHandshake();
    logOverUTP("BT handshake ✓ ");
}

asio::awaitable<void> PeerConnection::negotiateEncryption(MSEPrime prime) try {
    environment_.log.debug("[MSE] → ", address_.description(), " negotiating RC4 over ", textOf(transport_->kind()));
    SecureRandom random;
    co_await MSEHandshake::negotiateInitiator(transport_, identity_.infoHash, prime, random);
    environment_.log.debug("[MSE] ✓ ", address_.description(), " RC4 selected");
    encryptionStatus_ = PeerEncryptionStatus::encrypted;
} catch (const MSEException& failure) {
    encryptionStatus_ = PeerEncryptionStatus::handshakeFailed;
    mayNeedOtherPrime_ = failure.mayNeedOtherPrime;
    throw;
}

void PeerConnection::logOverUTP(std::string_view step) const {
    if (transport_->kind() == PeerTransport::utp)
        environment_.log.debug("[uTP][PeerWire] ", step, address_.description());
}

asio::awaitable<void> PeerConnection::shakeHandsAsAccepted() {
    co_await transport_->start();
    co_await receiveHandshake();
    co_await sendHandshake();
}

asio::awaitable<void> PeerConnection::sendHandshake() {
    const PeerHandshake handshake{identity_.infoHash, identity_.peerID, true};
    const PeerHandshake::Encoded bytes = handshake.encode();
    co_await transport_->send(bytes);
}

asio::awaitable<void> PeerConnection::receiveHandshake() {
    const Bytes bytes = co_await transport_->receive(PeerHandshake::size);
    if (const auto fault = PeerHandshake::faultOf(bytes)) {
        environment_.log.info("[Handshake] ✗ ", address_.description(), *fault);
        throw PeerException(PeerError::invalidHandshake);
    }
    const PeerHandshake handshake = PeerHandshake::decode(bytes);
    if (handshake.infoHash != identity_.infoHash) throw PeerException(PeerError::infoHashMismatch);
    remotePeerID_ = handshake.peerID;
    supportsExtended_ = handshake.supportsExtended;
}

// --- receiving -------------------------------------------------------------------------------------------------------

asio::awaitable<void> PeerConnection::messageLoop() {
    std::string reason;
    try {
        co_await receiveMessages();
    } catch (const std::exception& error) {
        reason = textOf(error);
    }
    if (tasks_.isStopping()) co_return;
    environment_.log.debug("[Peer ", address_.description(), "] message loop ended: ", reason);
    handleDisconnect(reason);
}

asio::awaitable<void> PeerConnection::receiveMessages() {
    for (;;) {
        std::span<std::uint8_t> room = received_.prepare();
        const std::int64_t portion = environment_.sessionDownload.portion(download_.portion(largestRead));
        room = room.first(std::min(room.size(), static_cast<std::size_t>(std::max<std::int64_t>(portion, 1024))));
        isReading_ = true;
        const std::size_t count = co_await transport_->receiveSome(room);
        isReading_ = false;
        lastActiveAt_ = environment_.clock.now();
        received_.commit(count);
        receivedBlockBytes_ = 0;
        co_await handleReceived();
        if (receivedBlockBytes_ > 0) {
            if (callbacks_.onBlocksReceived) co_await callbacks_.onBlocksReceived();
            co_await paceDownload(receivedBlockBytes_);
        }
        co_await waitForUploads();
        lastActiveAt_ = environment_.clock.now();
    }
}

/// Whole messages, by portions between which the others on the strand have their turn.
asio::awaitable<void> PeerConnection::handleReceived() {
    for (;;) {
        const wire::Decoded decoded = wire::decodeMessages(received_.unread(), *this, workAtATime);
        received_.consume(decoded.bytes);
        if (!decoded.hasMore) co_return;
        co_await asio::post(environment_.strand, asio::use_awaitable);
    }
}

asio::awaitable<void> PeerConnection::paceDownload(std::int64_t bytes) {
    const Clock::TimePoint now = environment_.clock.now();
    const auto wait = std::max(download_.book(bytes, now), environment_.sessionDownload.book(bytes, now));
    if (wait <= Clock::Duration::zero()) co_return;
    co_await environment_.clock.sleep(wait);
    if (owesBlocksSince_) owesBlocksSince_ = environment_.clock.now();  // it was we who did not listen
}

/// A peer that asks faster than it reads is not read itself until it has taken some answers.
asio::awaitable<void> PeerConnection::waitForUploads() {
    while (uploads_.isFull()) co_await uploadsShrank_.wait();
}

void PeerConnection::onChoke(bool isChoked) {
    const bool isNews = peerChoking_ != isChoked;
    peerChoking_ = isChoked;
    if (isChoked) owesBlocksSince_.reset();  // what was asked for is forgotten
    environment_.log.debug("[Peer ", address_.description(), isChoked ? "] choke" : "] unchoke");
    if (isNews && callbacks_.onChokeChanged) callbacks_.onChokeChanged(isChoked);
}

void PeerConnection::onInterested(bool isInterested) {
    peerInterested_ = isInterested;
    if (callbacks_.onInterestChanged) callbacks_.onInterestChanged(isInterested);
}

void PeerConnection::onHave(std::uint32_t piece) {
    if (const std::size_t byte = piece / 8; byte < mostBitfieldBytes_) {
        if (!peerBitfield_) peerBitfield_.emplace();
        if (byte >= peerBitfield_->size()) peerBitfield_->resize(byte + 1);
        (*peerBitfield_)[byte] |= static_cast<std::uint8_t>(0x80U >> piece % 8U);
    }
    if (callbacks_.onHaveReceived) callbacks_.onHaveReceived(piece);
}

void PeerConnection::onBitfield(ByteView bitfield) {
    const ByteView kept = bitfield.first(std::min(bitfield.size(), mostBitfieldBytes_));
    peerBitfield_.emplace(kept.begin(), kept.end());
    environment_.log.debug("[Peer ", address_.description(), "] bitfield ", bitfield.size(), " bytes");
    if (callbacks_.onBitfieldReceived) callbacks_.onBitfieldReceived(*peerBitfield_);
}

void PeerConnection::setPieceCount(int count) {
    mostBitfieldBytes_ = (static_cast<std::size_t>(std::max(count, 0)) + 7) / 8;
    if (!peerBitfield_ || peerBitfield_->size() <= mostBitfieldBytes_) return;
    peerBitfield_->resize(mostBitfieldBytes_);
    peerBitfield_->shrink_to_fit();
}

void PeerConnection::onRequest(std::uint32_t piece, std::uint32_t begin, std::uint32_t length) {
    if (amChoking_) return;
    if (uploads_.push({static_cast<int>(piece), static_cast<int>(begin), static_cast<int>(length)}))
        writerWake_.notify();
}

void PeerConnection::onCancel(std::uint32_t piece, std::uint32_t begin, std::uint32_t length) {
    uploads_.cancel({static_cast<int>(piece), static_cast<int>(begin), static_cast<int>(length)});
}

void PeerConnection::onPiece(std::uint32_t piece, std::uint32_t begin, ByteView block) {
    const auto size = static_cast<std::int64_t>(block.size());
    receivedBlockBytes_ += size;
    owesBlocksSince_.reset();
    counters_.bytesDownloaded += size;
    counters_.uiBytesDownloaded += size;
    uiDownloadSpeedTracker_.add(size, *lastActiveAt_);
    environment_.log.trace("[Peer ", address_.description(), "] piece ", piece, " begin ", begin);
    if (callbacks_.onPieceReceived) callbacks_.onPieceReceived(piece, begin, block);
}

void PeerConnection::onExtended(ByteView body) {
    extensions_.handleExtended(body);
    if (extensions_.owesMetadata()) writerWake_.notify();
}

void PeerConnection::onOversized(std::size_t length) {
    environment_.log.info("[Peer ", address_.description(), "] oversized message length=", length, ", dropping peer");
}

bool PeerConnection::hasPiece(std::uint32_t index) const noexcept {
    if (!peerBitfield_ || index / 8 >= peerBitfield_->size()) return false;
    return ((*peerBitfield_)[index / 8] >> (7U - index % 8U) & 1U) != 0;
}

// --- sending ---------------------------------------------------------------------------------------------------------

void PeerConnection::sendInterested() {
    amInterested_ = true;
    enqueue(MessageID::interested);
}

void PeerConnection::sendNotInterested() {
    amInterested_ = false;
    enqueue(MessageID::notInterested);
}

void PeerConnection::sendUnchoke() {
    amChoking_ = false;
    enqueue(MessageID::unchoke);
}

void PeerConnection::sendChoke() {
    amChoking_ = true;
    uploads_.clear();
    uploadsShrank_.notify();
    enqueue(MessageID::choke);
}

void PeerConnection::sendBitfield(ByteView bitfield) { enqueue(MessageID::bitfield, bitfield); }

void PeerConnection::sendHave(int piece) {
    if (!isConnected_) return;
    wire::appendHave(pendingControl_, static_cast<std::uint32_t>(piece));
    if (!hasPiece(static_cast<std::uint32_t>(piece))) wakeWriter();
}

void PeerConnection::flush() {
    if (!pendingControl_.empty()) wakeWriter();
}

void PeerConnection::sendRequests(std::span<const BlockRequest> requests) {
    if (!isConnected_) return;
    for (const BlockRequest& request : requests) wire::appendBlockMessage(pendingControl_, MessageID::request, request);
    if (!owesBlocksSince_) owesBlocksSince_ = environment_.clock.now();
    wakeWriter();
}

void PeerConnection::sendCancel(const BlockRequest& request) {
    if (!isConnected_) return;
    wire::appendBlockMessage(pendingControl_, MessageID::cancel, request);
    wakeWriter();
}

void PeerConnection::sendExtendedHandshake(std::optional<std::int64_t> metadataSize, bool offersPex) {
    const Bytes body = PeerExtensions::handshake(metadataSize, offersPex);
    enqueue(MessageID::extended, body);
}

void PeerConnection::requestMetadataPiece(std::int64_t piece) {
    if (const auto body = extensions_.metadataRequest(piece)) enqueue(MessageID::extended, *body);
}

void PeerConnection::enqueue(MessageID id, ByteView body) {
    if (!isConnected_) return;
    wire::appendMessage(pendingControl_, id, body);
    wakeWriter();
}

void PeerConnection::wakeWriter() {
    if (pendingControl_.size() > maxPendingControl) return disconnect();
    writerWake_.notify();
}

asio::awaitable<void> PeerConnection::writeLoop() try {
    for (;;) {
        if (!pendingControl_.empty()) {
            co_await writePending();
        } else if (extensions_.owesMetadata()) {
            answerMetadataRequests();
        } else if (auto batch = uploads_.takeBatch(uploadPortion()); !batch.empty()) {
            uploadsShrank_.notify();
            co_await writeUploads(std::move(batch));
        } else {
            co_await writerWake_.wait();
        }
    }
} catch (const std::exception& error) {
    // The reader meets the same closed transport and reports it; told twice, one failure would count as two.
    if (isConnected_) writeFailure_ = textOf(error);
    transport_->cancel();
}

asio::awaitable<void> PeerConnection::writePending() {
    const Bytes bytes = std::exchange(pendingControl_, {});
    writingSince_ = environment_.clock.now();
    co_await transport_->send(bytes);
    hasSpoken_ = true;
    lastSentAt_ = environment_.clock.now();
    writingSince_.reset();
}

void PeerConnection::answerMetadataRequests() {
    for (int i = 0; i < metadataAnswersAWrite && extensions_.owesMetadata(); ++i)
        wire::appendMessage(pendingControl_, MessageID::extended, extensions_.takeMetadataAnswer());
}

std::int64_t PeerConnection::uploadPortion() const noexcept {
    return environment_.sessionUpload.portion(upload_.portion(largestRead));
}

/// The answers of a batch lie one behind the other in one buffer: one read from disk, one write to the socket.
asio::awaitable<void> PeerConnection::writeUploads(std::vector<BlockRequest> batch) {
    if (!callbacks_.onPieceRequested) co_return;
    std::size_t size = 0;
    for (const BlockRequest& block : batch) size += wire::pieceHeaderSize + static_cast<std::size_t>(block.length);
    const auto buffer = std::make_unique_for_overwrite<std::uint8_t[]>(size);
    std::vector<BlockRead> reads;
    reads.reserve(batch.size());
    std::uint8_t* at = buffer.get();
    for (const BlockRequest& block : batch) {
        wire::writePieceHeader(at, block);
        at += wire::pieceHeaderSize;
        BlockRead read{block, {at, static_cast<std::size_t>(block.length)}, false};
        reads.push_back(read);
        at += block.length;
    }
    co_await callbacks_.onPieceRequested(reads);

    // Blocks that may not be served leave gaps; what lies between two gaps goes out in one write.
    std::int64_t sent = 0;
    for (auto read = reads.begin(); read != reads.end();) {
        if (!read->ok) {
            ++read;
            continue;
        }
        const std::uint8_t* const start = read->into.data() - wire::pieceHeaderSize;
        const std::uint8_t* end = start;
        for (; read != reads.end() && read->ok; ++read) {
            end = read->into.data() + read->into.size();
            sent += read->request.length;
        }
        const ByteView run(start, end);
        writingSince_ = environment_.clock.now();
        co_await transport_->send(run);
        lastSentAt_ = environment_.clock.now();
        uploads_.noteWriteTime(lastSentAt_ - *writingSince_);
        writingSince_.reset();
    }
    if (sent == 0) co_return;
    counters_.bytesUploaded += sent;
    counters_.uiBytesUploaded += sent;
    uiUploadSpeedTracker_.add(sent, lastSentAt_);
    if (callbacks_.onBytesUploaded) callbacks_.onBytesUploaded(sent);
    co_await paceUpload(sent);
}

asio::awaitable<void> PeerConnection::paceUpload(std::int64_t bytes) {
    const Clock::TimePoint now = environment_.clock.now();
    const auto wait = std::max(upload_.book(bytes, now), environment_.sessionUpload.book(bytes, now));
    if (wait > Clock::Duration::zero()) co_await environment_.clock.sleep(wait);
}

// --- the end ---------------------------------------------------------------------------------------------------------

/// Sleeps exactly until something is due: a keep-alive of ours, or the end of our patience.
asio::awaitable<void> PeerConnection::watchSilence() try {
    for (;;) {
        const Clock::TimePoint now = environment_.clock.now();
        const bool peerIsDue = isReading_ || writingSince_;
        const Clock::TimePoint heard = std::max(*lastActiveAt_, writingSince_.value_or(*lastActiveAt_));
        const Clock::TimePoint dropAt = peerIsDue ? heard + dropAfter : now + dropAfter;
        if (now >= dropAt) {
            disconnect();
            co_return;
        }
        if (now - lastSentAt_ >= keepAliveAfter) {
            if (!writingSince_ && pendingControl_.empty()) {
                wire::appendKeepAlive(pendingControl_);
                writerWake_.notify();
            }
            lastSentAt_ = now;
        }
        co_await environment_.clock.sleep(std::min(dropAt, lastSentAt_ + keepAliveAfter) - now);
    }
} catch (const std::exception&) {
    // Cancelled: the connection stops.
}

void PeerConnection::handleDisconnect(const std::string& reason) {
    isConnected_ = false;
    transport_->cancel();
    if (const auto report = std::exchange(callbacks_.onDisconnected, nullptr)) report(reason);
}

// --- figures ---------------------------------------------------------------------------------------------------------

PeerConnection::RuntimeStats PeerConnection::runtimeStats() const {
    const Clock::TimePoint now = environment_.clock.now();
    return {uiDownloadSpeedTracker_.bytesPerSecond(now), uiUploadSpeedTracker_.bytesPerSecond(now),
            counters_.uiBytesDownloaded, counters_.uiBytesUploaded};
}

PeerConnection::TrafficCounters PeerConnection::drainTrafficCounters() noexcept {
    const TrafficCounters drained = counters_;
    counters_.bytesDownloaded = 0;
    counters_.bytesUploaded = 0;
    return drained;
}

void PeerConnection::setSpeedLimit(std::int64_t bytesPerSecond) noexcept {
    download_.setLimit(bytesPerSecond);
    upload_.setLimit(bytesPerSecond);
}

}  // namespace skein
