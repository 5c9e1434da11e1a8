#include "Core/wire/ExtendedMessage.h"
#include "fuzz/Check.h"

#include <cstddef>
#include <cstdint>

namespace skein {
namespace {

constexpr std::size_t peerLimit = 100;

void readAsAll(ByteView payload) {
    if (const auto handshake = ExtendedHandshake::decode(payload)) {
        const auto again = ExtendedHandshake::decode(handshake->encode());
        check(again && again->metadataID == handshake->metadataID && again->pexID == handshake->pexID &&
              again->metadataSize == handshake->metadataSize);
    }
    if (const auto message = MetadataMessage::decode(payload)) {
        check(message->bytes.size() < payload.size());
        check(message->bytes.data() + message->bytes.size() == payload.data() + payload.size());
    }
    for (const PeerAddress& peer : pex::decode(payload, peerLimit)) check(peer.literal().has_value());
    check(pex::decode(payload, peerLimit).size() <= peerLimit);
}

}  // namespace
}  // namespace skein

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    skein::readAsAll({data, size});
    return 0;
}
