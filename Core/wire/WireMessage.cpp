#include "Core/wire/WireMessage.h"

namespace skein::wire {

void appendKeepAlive(Bytes& to) { appendBigEndian<std::uint32_t>(to, 0); }

void appendMessage(Bytes& to, MessageID id, ByteView body) {
    appendBigEndian(to, static_cast<std::uint32_t>(body.size() + 1));
    to.push_back(static_cast<std::uint8_t>(id));
    append(to, body);
}

void appendHave(Bytes& to, std::uint32_t piece) {
    appendBigEndian<std::uint32_t>(to, 5);
    to.push_back(static_cast<std::uint8_t>(MessageID::have));
    appendBigEndian(to, piece);
}

void appendBlockMessage(Bytes& to, MessageID id, const BlockRequest& request) {
    appendBigEndian<std::uint32_t>(to, 13);
    to.push_back(static_cast<std::uint8_t>(id));
    appendBigEndian(to, static_cast<std::uint32_t>(request.pieceIndex));
    appendBigEndian(to, static_cast<std::uint32_t>(request.begin));
    appendBigEndian(to, static_cast<std::uint32_t>(request.length));
}

void writePieceHeader(std::uint8_t* to, const BlockRequest& block) {
    writeBigEndian(to, static_cast<std::uint32_t>(9 + block.length));
    to[4] = static_cast<std::uint8_t>(MessageID::piece);
    writeBigEndian(to + 5, static_cast<std::uint32_t>(block.pieceIndex));
    writeBigEndian(to + 9, static_cast<std::uint32_t>(block.begin));
}

}  // namespace skein::wire
