#include "Core/wire/UTPException.h"
#include "Core/wire/UTPStream.h"
#include "fuzz/Check.h"

#include <algorithm>
#include <string_view>

namespace skein {
namespace {

/// What is decoded says the same once encoded; the unused bits of nothing are lost.
void checkRoundTrip(ByteView datagram) {
    try {
        const UTPPacket packet = UTPPacket::decode(datagram);
        check(std::ranges::equal(packet.encode(), datagram));
        check(!packet.summary().empty());
    } catch (const UTPException& failure) {
        check(std::string_view(failure.what()).starts_with("Invalid uTP packet: "));
    }
}

/// Hands the datagrams in `script` to a stream between sends, reads and retries; each is two bytes of length and what
/// to do, then the datagram.
void converse(ByteView script) {
    Clock::TimePoint now{std::chrono::hours(1)};
    UTPStream stream(7);
    if (script.size() % 2 == 1) stream.expectStart(toBytes("start"));
    checkRoundTrip(stream.open(now));
    Bytes read(5000);
    while (script.size() >= 2) {
        const std::size_t size = std::min<std::size_t>(script[0], script.size() - 2);
        const unsigned todo = script[1];
        const ByteView datagram = script.subspan(2, size);
        script = script.subspan(2 + size);
        now += std::chrono::milliseconds(todo);
        std::optional<Bytes> sent;
        try {
            sent = stream.take(UTPPacket::decode(datagram), now);
        } catch (const UTPException&) {
            if (stream.isOpening()) return;
        }
        check(!sent || UTPPacket::decode(*sent).header.type == UTPPacketType::state);
        if (stream.isAwaitingAck() && (todo & 1U) != 0) sent = stream.retry(now);
        if (stream.isOpen() && !stream.isAwaitingAck() && (todo & 2U) != 0) sent = stream.sendPayload(datagram, now);
        if ((todo & 4U) != 0) check(stream.read(read) <= read.size());
        if ((todo & 8U) != 0) sent = stream.windowUpdate(now);
        if (sent) check(UTPPacket::decode(*sent).header.windowSize <= UTPStream::maxBuffered);
    }
}

}  // namespace
}  // namespace skein

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace skein;
    checkRoundTrip({data, size});
    converse({data, size});
    return 0;
}
