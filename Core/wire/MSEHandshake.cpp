#include "Core/wire/MSEHandshake.h"

#include "Core/wire/RC4PeerWireTransport.h"

#include <array>
#include <exception>
#include <utility>

namespace skein {

namespace {

asio::awaitable<void> run(PeerWireTransport& transport, MSEInitiator& initiator) {
    co_await transport.send(initiator.opening());
    std::array<std::uint8_t, 1024> buffer{};
    while (!initiator.isDone()) {
        const std::size_t count = co_await transport.receiveSome(buffer);
        const Bytes answer = initiator.take(ByteView(buffer).first(count));
        if (!answer.empty()) co_await transport.send(answer);
    }
}

}  // namespace

asio::awaitable<void> MSEHandshake::negotiateInitiator(std::unique_ptr<PeerWireTransport>& transport,
                                                       const SHA1Digest& infoHash, MSEPrime prime, Random& random) {
    MSEInitiator initiator(infoHash, prime, random);
    try {
        co_await run(*transport, initiator);
    } catch (const std::exception&) {
        throw MSEException(initiator.isAwaitingVC());
    }
    transport = std::make_unique<RC4PeerWireTransport>(std::move(transport), initiator.takeOutcome());
}

}  // namespace skein
