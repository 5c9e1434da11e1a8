#include "Core/wire/UTPStream.h"

#include "Core/wire/UTPException.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace skein {

namespace {

std::uint32_t microseconds(Clock::TimePoint time) noexcept {
    const auto since = std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch());
    return static_cast<std::uint32_t>(since.count());
}

/// The numbers go round: `a` has reached `b` when it is at most half a round ahead of it.
bool hasReached(std::uint16_t a, std::uint16_t b) noexcept { return static_cast<std::uint16_t>(a - b) < 0x8000U; }

}  // namespace

UTPStream::UTPStream(std::uint16_t receiveConnectionID) : receiveConnectionID_(receiveConnectionID) {}

/// Before the first DATA it is not known whether the peer's opening number is that of its first DATA. If it is, to
/// acknowledge it would say that we have what may be lost, or acknowledge what was never sent: strict peers drop that.
/// The number before it is right for the one kind of peer and merely old for the other.
std::uint16_t UTPStream::acknowledgementNumber() const noexcept {
    return static_cast<std::uint16_t>(acknowledgementNumber_ - (isOpen() && awaitsFirstData_ ? 1 : 0));
}

// --- sending ---------------------------------------------------------------------------------------------------------

Bytes UTPStream::open(Clock::TimePoint now) {
    assert(state_ == State::idle);
    state_ = State::opening;
    pending_.emplace(Pending{UTPPacketType::syn, reserveSendSequence(), {}});
    return sendPending(now);
}

Bytes UTPStream::sendPayload(ByteView chunk, Clock::TimePoint now) {
    assert(!pending_ && chunk.size() <= maxPayloadSize);
    pending_.emplace(Pending{UTPPacketType::data, reserveSendSequence(), Bytes(chunk.begin(), chunk.end())});
    return sendPending(now);
}

std::optional<Bytes> UTPStream::retry(Clock::TimePoint now) {
    if (pending_->attempt >= maxRetransmits) {
        nextSendSequence_ = pending_->sequence;
        pending_.reset();
        return std::nullopt;
    }
    ++pending_->attempt;
    pending_->wasRepeated = true;
    return sendPending(now);
}

Bytes UTPStream::sendPending(Clock::TimePoint now) {
    pending_->sentAt = now;
    pending_->deadline = now + roundTrip_.timeout(pending_->attempt);
    return makePacket(pending_->type, pending_->sequence, acknowledgementNumber(), pending_->payload, now);
}

Bytes UTPStream::finish(Clock::TimePoint now) {
    return makePacket(UTPPacketType::fin, reserveSendSequence(), acknowledgementNumber(), {}, now);
}

/// A STATE uses no number up: it bears the next one.
Bytes UTPStream::makeState(Clock::TimePoint now) {
    return makePacket(UTPPacketType::state, nextSendSequence_, acknowledgementNumber(), {}, now);
}

Bytes UTPStream::makePacket(UTPPacketType type, std::uint16_t sequence, std::uint16_t acknowledgement, ByteView payload,
                            Clock::TimePoint now) {
    toldRoom_ = room();
    UTPPacket packet;
    packet.header.type = type;
    packet.header.connectionID = type == UTPPacketType::syn ? receiveConnectionID() : sendConnectionID();
    packet.header.timestampMicroseconds = microseconds(now);
    packet.header.timestampDifferenceMicroseconds = delayMicroseconds_;
    packet.header.windowSize = toldRoom_;
    packet.header.sequenceNumber = sequence;
    packet.header.acknowledgementNumber = acknowledgement;
    packet.payload = payload;
    return packet.encode();
}

// --- receiving -------------------------------------------------------------------------------------------------------

std::optional<Bytes> UTPStream::take(const UTPPacket& packet, Clock::TimePoint now) {
    const UTPPacketHeader& header = packet.header;
    // A reset may bear the number of the packet that it refuses, and so ours.
    const bool refuses = header.type == UTPPacketType::reset && header.connectionID == sendConnectionID();
    if (header.connectionID != receiveConnectionID() && !refuses) return std::nullopt;
    if (state_ == State::opening) return completeOpening(packet, now);
    if (state_ != State::open) return std::nullopt;
    if (header.type == UTPPacketType::reset) {
        state_ = State::reset;
        return std::nullopt;
    }
    if (header.type == UTPPacketType::syn) return std::nullopt;

    noteSender(header, now);
    noteAcknowledgement(header.acknowledgementNumber, now);
    if (header.type == UTPPacketType::state) return std::nullopt;
    if (header.type == UTPPacketType::data) {
        deliver(packet);
        return makeState(now);
    }
    if (header.sequenceNumber == expectedReceiveSequence_) acknowledgementNumber_ = header.sequenceNumber;
    state_ = State::finished;
    return makeState(now);
}

std::optional<Bytes> UTPStream::completeOpening(const UTPPacket& packet, Clock::TimePoint now) {
    if (packet.header.type != UTPPacketType::state)
        throw UTPException("unexpected uTP open response: " + packet.summary());
    state_ = State::open;
    acknowledgementNumber_ = packet.header.sequenceNumber;
    expectedReceiveSequence_ = static_cast<std::uint16_t>(acknowledgementNumber_ + 1);
    noteSender(packet.header, now);
    noteAcknowledgement(pending_->sequence, now);
    return makePacket(UTPPacketType::state, nextSendSequence_, acknowledgementNumber_, {}, now);
}

void UTPStream::noteSender(const UTPPacketHeader& header, Clock::TimePoint now) {
    delayMicroseconds_ = microseconds(now) - header.timestampMicroseconds;
    // A peer that says that it has no room is slow, not gone.
    if (pending_ && header.windowSize < pending_->payload.size()) pending_->attempt = 1;
}

/// Data bears acknowledgements like any STATE.
void UTPStream::noteAcknowledgement(std::uint16_t number, Clock::TimePoint now) {
    if (!pending_ || !hasReached(number, pending_->sequence)) return;
    if (!pending_->wasRepeated) roundTrip_.observe(now - pending_->sentAt);
    pending_.reset();
}

/// Takes what comes next and has room. All else the peer sends again, told by the STATE that answers how far we are.
void UTPStream::deliver(const UTPPacket& packet) {
    const std::uint16_t sequence = packet.header.sequenceNumber;
    const bool opensWithItsStateNumber = awaitsFirstData_ && sequence == acknowledgementNumber_;
    if (sequence != expectedReceiveSequence_ && !opensWithItsStateNumber) return;
    if (awaitsFirstData_ && !opensWithItsStateNumber && !mayBeTheStart(packet.payload)) return;
    if (packet.payload.size() > room()) return;
    for (ByteView rest = packet.payload; !rest.empty();) {
        const std::span<std::uint8_t> into = receiveBuffer_.prepare();
        const std::size_t count = std::min(into.size(), rest.size());
        std::copy_n(rest.begin(), count, into.begin());
        receiveBuffer_.commit(count);
        rest = rest.subspan(count);
    }
    awaitsFirstData_ = false;
    acknowledgementNumber_ = sequence;
    expectedReceiveSequence_ = static_cast<std::uint16_t>(sequence + 1);
}

bool UTPStream::mayBeTheStart(ByteView payload) const noexcept {
    const std::size_t compared = std::min(payload.size(), expectedStart_.size());
    return std::ranges::equal(payload.first(compared), ByteView(expectedStart_).first(compared));
}

std::uint32_t UTPStream::room() const noexcept {
    return static_cast<std::uint32_t>(maxBuffered - receiveBuffer_.unread().size());
}

std::size_t UTPStream::read(std::span<std::uint8_t> into) {
    const ByteView unread = receiveBuffer_.unread();
    const std::size_t count = std::min(into.size(), unread.size());
    std::copy_n(unread.begin(), count, into.begin());
    receiveBuffer_.consume(count);
    return count;
}

std::optional<Bytes> UTPStream::windowUpdate(Clock::TimePoint now) {
    if (!isOpen() || toldRoom_ >= maxBuffered / 4 || room() < maxBuffered / 2) return std::nullopt;
    return makeState(now);
}

}  // namespace skein
