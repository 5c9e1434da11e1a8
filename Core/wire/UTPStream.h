#pragma once

#include "Core/wire/ReceiveBuffer.h"
#include "Core/wire/UTPPacket.h"
#include "Core/wire/UTPRoundTrip.h"
#include "public/common/Bytes.h"
#include "public/common/Clock.h"

#include <cstdint>
#include <optional>
#include <span>
#include <utility>

namespace skein {

/// The dialling side of one uTP connection over datagrams and times alone: one packet at a time, each acknowledged
/// before the next. Whoever drives it sends the datagrams that it returns. Source: BEP 29.
class UTPStream {
public:
    /// Header and payload stay below the smallest packet that every path carries whole (1280 bytes on IPv6).
    static constexpr std::size_t maxPayloadSize = 1180;
    /// How often one packet is sent at most.
    static constexpr int maxRetransmits = 6;
    /// Bytes received and not read for which there is room: what the peer may send in a round trip.
    static constexpr std::size_t maxBuffered = std::size_t{512} << 10U;

    /// What the peer sends bears `receiveConnectionID`, which is at least 1 and leaves room for the one after it.
    explicit UTPStream(std::uint16_t receiveConnectionID);

    /// The bytes with which the peer's stream begins, if they are known: a second DATA that overtook the first is then
    /// not taken for it.
    void expectStart(Bytes start) { expectedStart_ = std::move(start); }

    std::uint16_t receiveConnectionID() const noexcept { return receiveConnectionID_; }
    std::uint16_t sendConnectionID() const noexcept { return static_cast<std::uint16_t>(receiveConnectionID_ + 1); }
    /// The number of the last DATA that was delivered; before the first, one at which the peer cannot take it for more.
    std::uint16_t acknowledgementNumber() const noexcept;

    /// The SYN; first of all.
    Bytes open(Clock::TimePoint now);
    /// A DATA packet with `chunk`, at most `maxPayloadSize` long; when nothing awaits its acknowledgement.
    Bytes sendPayload(ByteView chunk, Clock::TimePoint now);
    bool isAwaitingAck() const noexcept { return pending_.has_value(); }
    /// While something does: its number, how often it was sent, and when it is to be sent again by `retry`.
    std::uint16_t pendingSequence() const noexcept { return pending_->sequence; }
    int attempt() const noexcept { return pending_->attempt; }
    Clock::TimePoint deadline() const noexcept { return pending_->deadline; }
    /// The same packet again; nothing once all attempts were made: its number is then free again.
    std::optional<Bytes> retry(Clock::TimePoint now);

    /// What is to be answered to `packet`, if anything: always an ST_STATE. Packets of other connections are dropped.
    /// Throws UTPException when it does not open the connection as it should.
    std::optional<Bytes> take(const UTPPacket& packet, Clock::TimePoint now);
    bool isOpening() const noexcept { return state_ == State::opening; }
    bool isOpen() const noexcept { return state_ == State::open; }
    /// The peer sends no more; what came before can still be read.
    bool isFinished() const noexcept { return state_ == State::finished; }
    bool isReset() const noexcept { return state_ == State::reset; }

    /// Takes bytes that came in order; 0 when there are none.
    std::size_t read(std::span<std::uint8_t> into);
    /// After a read: an ST_STATE, where the peer was last told of little room.
    std::optional<Bytes> windowUpdate(Clock::TimePoint now);
    /// An ST_FIN, which nobody waits for the acknowledgement of.
    Bytes finish(Clock::TimePoint now);

private:
    enum class State : std::uint8_t { idle, opening, open, finished, reset };

    /// The packet that awaits its acknowledgement.
    struct Pending {
        UTPPacketType type;
        std::uint16_t sequence;
        Bytes payload;
        int attempt = 1;
        bool wasRepeated = false;
        Clock::TimePoint sentAt;
        Clock::TimePoint deadline;
    };

    std::uint16_t reserveSendSequence() noexcept { return nextSendSequence_++; }
    Bytes sendPending(Clock::TimePoint now);
    Bytes makePacket(UTPPacketType type, std::uint16_t sequence, std::uint16_t acknowledgement, ByteView payload,
                     Clock::TimePoint now);
    Bytes makeState(Clock::TimePoint now);
    std::optional<Bytes> completeOpening(const UTPPacket& packet, Clock::TimePoint now);
    void noteSender(const UTPPacketHeader& header, Clock::TimePoint now);
    void noteAcknowledgement(std::uint16_t number, Clock::TimePoint now);
    void deliver(const UTPPacket& packet);
    bool mayBeTheStart(ByteView payload) const noexcept;
    std::uint32_t room() const noexcept;

    const std::uint16_t receiveConnectionID_;
    State state_ = State::idle;
    std::uint16_t nextSendSequence_ = 1;
    std::uint16_t expectedReceiveSequence_ = 0;
    std::uint16_t acknowledgementNumber_ = 0;
    bool awaitsFirstData_ = true;
    Bytes expectedStart_;
    ReceiveBuffer receiveBuffer_;
    std::uint32_t toldRoom_ = maxBuffered;
    std::uint32_t delayMicroseconds_ = 0;  // of the peer's last packet
    std::optional<Pending> pending_;
    UTPRoundTrip roundTrip_;
};

}  // namespace skein
