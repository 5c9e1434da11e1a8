#pragma once

#include "Core/wire/PeerWireTransport.h"
#include "Core/wire/RelayTransport.h"

#include <cstddef>
#include <memory>

namespace skein {

/// A peer-wire stream through a relay.
class RelayPeerWireTransport final : public PeerWireTransport {
public:
    /// Longer writes go out as several messages: many websocket libraries refuse those above 1 MiB.
    static constexpr std::size_t largestMessage = std::size_t{256} << 10U;

    /// The relay is paired by `start` if `connectOnStart`, and was paired by the caller otherwise.
    RelayPeerWireTransport(std::unique_ptr<RelayTransport> relay, bool connectOnStart);

    PeerTransport kind() const noexcept override { return PeerTransport::relay; }
    /// Throws RelayException, whose text says why there was no pairing.
    asio::awaitable<void> start() override;
    asio::awaitable<void> send(ByteView data) override;
    asio::awaitable<std::size_t> receiveSome(std::span<std::uint8_t> into) override;
    void cancel() noexcept override { relay_->cancel(); }

private:
    const std::unique_ptr<RelayTransport> relay_;
    const bool connectOnStart_;
};

}  // namespace skein
