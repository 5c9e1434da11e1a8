#pragma once

#include "Core/wire/PeerTraits.h"
#include "public/common/Bytes.h"
#include "public/common/DescriptorBudget.h"

#include <boost/asio/awaitable.hpp>

#include <span>
#include <utility>

namespace skein {

namespace asio = boost::asio;

/// The byte stream under a peer connection: TCP, or something that behaves like it.
///
/// Owner: the connection. Started once, cancelled once, not restarted. One receive and one send at a time; a send may
/// run while a receive waits. Thread: the strand of the owner, from construction or hand-over to destruction.
class PeerWireTransport {
public:
    PeerWireTransport() = default;
    PeerWireTransport(const PeerWireTransport&) = delete;
    PeerWireTransport& operator=(const PeerWireTransport&) = delete;
    virtual ~PeerWireTransport() = default;

    virtual PeerTransport kind() const noexcept = 0;
    /// Returns when bytes can flow. Throws PeerException, or boost::system::system_error of the system below.
    virtual asio::awaitable<void> start() = 0;
    /// Returns when all of `data`, which the caller keeps until then, is written. Throws as `start`.
    virtual asio::awaitable<void> send(ByteView data) = 0;
    /// Returns how many bytes, at least one, were put into `into`. Throws as `start`; PeerException
    /// (connectionClosed) at the end of the stream.
    virtual asio::awaitable<std::size_t> receiveSome(std::span<std::uint8_t> into) = 0;
    /// Tears the stream down; what waits ends with an error. May be called again.
    virtual void cancel() noexcept = 0;

    /// Exactly `count` bytes, or throws as `receiveSome`.
    asio::awaitable<Bytes> receive(std::size_t count);

    /// The transport's socket counts as open until the transport goes.
    void hold(DescriptorBudget::Ticket ticket) { ticket_ = std::move(ticket); }

private:
    DescriptorBudget::Ticket ticket_;
};

}  // namespace skein
