#include "Core/wire/MessageDecoder.h"
#include "Core/wire/PeerError.h"
#include "Core/wire/PeerHandshake.h"
#include "Core/wire/ReceiveBuffer.h"
#include "fuzz/Check.h"

#include <algorithm>

namespace skein {
namespace {

/// Counts messages and touches every byte that it is shown.
class Reader final : public MessageSink {
public:
    std::size_t messages = 0;
    std::size_t sum = 0;

private:
    void onChoke(bool) override { ++messages; }
    void onInterested(bool) override { ++messages; }
    void onHave(std::uint32_t) override { ++messages; }
    void onBitfield(ByteView bitfield) override { read(bitfield); }
    void onRequest(std::uint32_t, std::uint32_t, std::uint32_t) override { ++messages; }
    void onCancel(std::uint32_t, std::uint32_t, std::uint32_t) override { ++messages; }
    void onPiece(std::uint32_t, std::uint32_t, ByteView block) override { read(block); }
    void onExtended(ByteView body) override {
        check(!body.empty());
        read(body);
    }
    void onOversized(std::size_t length) override { check(length > wire::maxMessageSize); }
    void read(ByteView bytes) {
        ++messages;
        for (const std::uint8_t byte : bytes) sum += byte;
    }
};

/// Reads `stream` through a receive buffer in portions whose size `seed` decides: the messages before its end or fault.
void readInPortions(ByteView stream, std::size_t seed, Reader& reader) {
    ReceiveBuffer buffer;
    try {
        while (!stream.empty()) {
            const auto room = buffer.prepare();
            check(!room.empty());
            const std::size_t count = std::min({room.size(), stream.size(), seed % 97 + 1});
            seed = seed * 31 + 7;
            std::copy_n(stream.begin(), count, room.begin());
            buffer.commit(count);
            stream = stream.subspan(count);
            while (true) {
                const wire::Decoded decoded = wire::decodeMessages(buffer.unread(), reader, 256);
                buffer.consume(decoded.bytes);
                if (!decoded.hasMore) break;
            }
        }
    } catch (const PeerException& failure) {
        check(failure.error == PeerError::oversizedMessage);
    }
}

}  // namespace
}  // namespace skein

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace skein;
    const ByteView stream(data, size);
    // However the stream is cut, it says the same.
    Reader first;
    Reader second;
    readInPortions(stream, size, first);
    readInPortions(stream, 1, second);
    check(first.messages == second.messages && first.sum == second.sum);
    if (size >= PeerHandshake::size && !PeerHandshake::faultOf(stream.first(PeerHandshake::size)))
        check(PeerHandshake::decode(stream).encode()[0] == 19);
    return 0;
}
