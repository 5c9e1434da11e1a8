#pragma once

#include "Core/wire/BlockRequest.h"
#include "public/common/Bytes.h"

#include <cstdint>

namespace skein {

/// The ids of peer messages. Source: BEP 3; `extended`: BEP 10. Any other id is ignored.
enum class MessageID : std::uint8_t {
    choke = 0,
    unchoke = 1,
    interested = 2,
    notInterested = 3,
    have = 4,
    bitfield = 5,
    request = 6,
    piece = 7,
    cancel = 8,
    extended = 20
};

/// Messages as they go out. Each appends one whole message, length prefix included.
namespace wire {

/// The length prefix, id, index and begin that go before a block's bytes.
inline constexpr std::size_t pieceHeaderSize = 13;

void appendKeepAlive(Bytes& to);
void appendMessage(Bytes& to, MessageID id, ByteView body = {});
void appendHave(Bytes& to, std::uint32_t piece);
/// `id` is `request` or `cancel`.
void appendBlockMessage(Bytes& to, MessageID id, const BlockRequest& request);
/// Writes `pieceHeaderSize` bytes at `to`.
void writePieceHeader(std::uint8_t* to, const BlockRequest& block);

}  // namespace wire

}  // namespace skein
