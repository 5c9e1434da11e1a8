#include "Core/wire/RC4PeerWireTransport.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace {

/// Of a long write, so much at a time is encrypted: large enough for few system calls, small enough for the cache.
constexpr std::size_t portionSize = std::size_t{64} << 10U;

}  // namespace

RC4PeerWireTransport::RC4PeerWireTransport(std::unique_ptr<PeerWireTransport> base, MSEInitiator::Outcome keys)
    : base_(std::move(base)),
      sendCipher_(keys.sendCipher),
      receiveCipher_(keys.receiveCipher),
      early_(std::move(keys.early)) {}

asio::awaitable<void> RC4PeerWireTransport::send(ByteView data) {
    while (!data.empty()) {
        const ByteView portion = data.first(std::min(data.size(), portionSize));
        data = data.subspan(portion.size());
        encrypted_.resize(portion.size());
        sendCipher_.apply(portion, encrypted_.data());
        co_await base_->send(encrypted_);
    }
}

asio::awaitable<std::size_t> RC4PeerWireTransport::receiveSome(std::span<std::uint8_t> into) {
    std::size_t count = std::min(into.size(), early_.size() - earlyUsed_);
    if (count > 0) {
        std::copy_n(early_.begin() + static_cast<std::ptrdiff_t>(earlyUsed_), count, into.begin());
        earlyUsed_ += count;
    } else {
        count = co_await base_->receiveSome(into);
    }
    receiveCipher_.apply(into.first(count));
    co_return count;
}

}  // namespace skein
