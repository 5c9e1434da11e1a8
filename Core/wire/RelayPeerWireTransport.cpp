#include "Core/wire/RelayPeerWireTransport.h"

#include "Core/wire/PeerError.h"
#include "Core/wire/RelayError.h"

#include <algorithm>
#include <utility>

namespace skein {

RelayPeerWireTransport::RelayPeerWireTransport(std::unique_ptr<RelayTransport> relay, bool connectOnStart)
    : relay_(std::move(relay)), connectOnStart_(connectOnStart) {}

asio::awaitable<void> RelayPeerWireTransport::start() {
    if (connectOnStart_) co_await relay_->connect();
}

asio::awaitable<void> RelayPeerWireTransport::send(ByteView data) try {
    while (!data.empty()) {
        const ByteView portion = data.first(std::min(data.size(), largestMessage));
        data = data.subspan(portion.size());
        co_await relay_->send(portion);
    }
} catch (const RelayException&) {
    throw PeerException(PeerError::connectionClosed);
}

asio::awaitable<std::size_t> RelayPeerWireTransport::receiveSome(std::span<std::uint8_t> into) try {
    co_return co_await relay_->receiveSome(into);
} catch (const RelayException&) {
    throw PeerException(PeerError::connectionClosed);
}

}  // namespace skein
