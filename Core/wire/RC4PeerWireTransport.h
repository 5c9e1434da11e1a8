#pragma once

#include "Core/wire/MSEInitiator.h"
#include "Core/wire/PeerWireTransport.h"
#include "Core/wire/RC4.h"

#include <memory>

namespace skein {

/// Another transport's stream, encrypted both ways.
class RC4PeerWireTransport final : public PeerWireTransport {
public:
    /// `base` is started. The ciphers stand where the handshake left them.
    RC4PeerWireTransport(std::unique_ptr<PeerWireTransport> base, MSEInitiator::Outcome keys);

    PeerTransport kind() const noexcept override { return base_->kind(); }
    /// Does nothing.
    asio::awaitable<void> start() override { co_return; }
    asio::awaitable<void> send(ByteView data) override;
    asio::awaitable<std::size_t> receiveSome(std::span<std::uint8_t> into) override;
    void cancel() noexcept override { base_->cancel(); }

private:
    const std::unique_ptr<PeerWireTransport> base_;
    RC4 sendCipher_;
    RC4 receiveCipher_;
    Bytes early_;
    std::size_t earlyUsed_ = 0;
    Bytes encrypted_;
};

}  // namespace skein
