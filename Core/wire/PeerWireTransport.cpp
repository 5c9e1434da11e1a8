#include "Core/wire/PeerWireTransport.h"

namespace skein {

asio::awaitable<Bytes> PeerWireTransport::receive(std::size_t count) {
    Bytes bytes(count);
    std::size_t filled = 0;
    while (filled < count) filled += co_await receiveSome(std::span(bytes).subspan(filled));
    co_return bytes;
}

}  // namespace skein
