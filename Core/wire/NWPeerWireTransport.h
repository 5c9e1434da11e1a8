#pragma once

#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerWireTransport.h"
#include "public/common/Clock.h"
#include "public/common/WayOut.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <variant>

namespace skein {

/// A peer-wire stream over TCP, dialled or accepted.
class NWPeerWireTransport final : public PeerWireTransport {
public:
    /// For a dial to `address`, whose host may be a name.
    NWPeerWireTransport(const asio::any_io_executor& io, Clock& clock, WayOut way, PeerAddress address,
                        std::chrono::seconds timeout);
    /// Wraps an accepted socket, whose executor is the io pool.
    explicit NWPeerWireTransport(asio::ip::tcp::socket incoming);
    ~NWPeerWireTransport() override;

    PeerTransport kind() const noexcept override { return PeerTransport::tcp; }
    /// Throws PeerException (timeout) when an outgoing connection is not made in time, boost::system::system_error when
    /// there is no way to the peer.
    asio::awaitable<void> start() override;
    asio::awaitable<void> send(ByteView data) override;
    asio::awaitable<std::size_t> receiveSome(std::span<std::uint8_t> into) override;
    void cancel() noexcept override;

    /// The next receives give `bytes` first: what was read to find out whom an accepted connection is for.
    void putBack(Bytes bytes) { putBack_ = std::move(bytes); }

private:
    struct Outgoing {
        Clock& clock;
        WayOut way;
        PeerAddress address;
        std::chrono::seconds timeout;
    };
    struct Incoming {};

    asio::awaitable<void> connect();

    const std::variant<Outgoing, Incoming> startMode_;
    asio::ip::tcp::socket connection_;
    Bytes putBack_;
    std::size_t putBackUsed_ = 0;
};

}  // namespace skein
