#include "Core/wire/MessageDecoder.h"

#include "Core/wire/PeerError.h"
#include "Core/wire/WireMessage.h"

#include <algorithm>

namespace skein::wire {

namespace {

std::uint32_t numberAt(ByteView bytes, std::size_t offset) {
    return readBigEndian<std::uint32_t>(bytes.subspan(offset, 4));
}

void dispatch(std::uint8_t id, ByteView body, MessageSink& sink) {
    switch (static_cast<MessageID>(id)) {
        case MessageID::choke: return sink.onChoke(true);
        case MessageID::unchoke: return sink.onChoke(false);
        case MessageID::interested: return sink.onInterested(true);
        case MessageID::notInterested: return sink.onInterested(false);
        case MessageID::have:
            if (body.size() >= 4) sink.onHave(numberAt(body, 0));
            return;
        case MessageID::bitfield: return sink.onBitfield(body);
        case MessageID::request:
            if (body.size() >= 12) sink.onRequest(numberAt(body, 0), numberAt(body, 4), numberAt(body, 8));
            return;
        case MessageID::piece:
            if (body.size() >= 9) sink.onPiece(numberAt(body, 0), numberAt(body, 4), body.subspan(8));
            return;
        case MessageID::cancel:
            if (body.size() >= 12) sink.onCancel(numberAt(body, 0), numberAt(body, 4), numberAt(body, 8));
            return;
        case MessageID::extended:
            if (!body.empty()) sink.onExtended(body);
            return;
    }
}

/// Blocks are copied, which costs next to nothing; other bodies are looked at byte by byte.
std::size_t workOf(std::uint8_t id, std::size_t length) {
    return static_cast<MessageID>(id) == MessageID::piece ? 1 : 1 + length / bytesPerWork;
}

}  // namespace

Decoded decodeMessages(ByteView stream, MessageSink& sink, std::size_t work) {
    Decoded decoded;
    while (stream.size() - decoded.bytes >= lengthPrefixSize) {
        const ByteView rest = stream.subspan(decoded.bytes);
        const std::size_t length = numberAt(rest, 0);
        if (length > maxMessageSize) {
            sink.onOversized(length);
            throw PeerException(PeerError::oversizedMessage);
        }
        if (rest.size() - lengthPrefixSize < length) break;
        if (work == 0) {
            decoded.hasMore = true;
            break;
        }
        if (length > 0)  // else a keep-alive
            dispatch(rest[lengthPrefixSize], rest.subspan(lengthPrefixSize + 1, length - 1), sink);
        work -= std::min(work, length > 0 ? workOf(rest[lengthPrefixSize], length) : 1);
        decoded.bytes += lengthPrefixSize + length;
    }
    return decoded;
}

}  // namespace skein::wire
