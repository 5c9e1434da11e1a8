#pragma once

#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerWireTransport.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/WayOut.h"

#include <chrono>
#include <memory>
#include <string>

namespace skein {

/// A peer-wire stream over uTP, dialled, on a UDP socket of its own. Source: BEP 29.
///
/// `start` runs on the owner's strand, as all else does: datagrams are answered there whether or not anybody reads.
class UTPPeerWireTransport final : public PeerWireTransport {
public:
    /// The host of `address` may be a name. `expectedStart`: the bytes with which what the peer sends begins, or
    /// nothing when they are not known. `clock` and `log` outlive the transport.
    UTPPeerWireTransport(Clock& clock, FileLogger& log, WayOut way, PeerAddress address, std::chrono::seconds timeout,
                         Bytes expectedStart = {});
    /// As `cancel`.
    ~UTPPeerWireTransport() override;

    PeerTransport kind() const noexcept override { return PeerTransport::utp; }
    /// Throws PeerException (timeout) when the peer does not answer in time, UTPException when it answers otherwise
    /// than with an ST_STATE, boost::system::system_error when there is no way to it.
    asio::awaitable<void> start() override;
    /// Throws PeerException (timeout) when the peer acknowledged none of six attempts.
    asio::awaitable<void> send(ByteView data) override;
    /// A second one while one waits is a fault of the program, which it stops.
    asio::awaitable<std::size_t> receiveSome(std::span<std::uint8_t> into) override;
    void cancel() noexcept override;

private:
    class Link;

    asio::awaitable<void> openUTP();
    asio::awaitable<void> sendPayload(ByteView chunk);
    asio::awaitable<void> waitForAck(std::string_view retryLine);

    Clock& clock_;
    FileLogger& log_;
    const WayOut way_;
    const PeerAddress address_;
    const std::chrono::seconds timeout_;
    const Bytes expectedStart_;
    bool isCancelled_ = false;
    bool isReading_ = false;
    std::shared_ptr<Link> link_;  // also held by the socket's pending wait, which ends a moment after `cancel`
};

}  // namespace skein
