#pragma once

#include "tests/support/ScriptedPeer.h"

#include <utility>

namespace skein {

/// Answers `maxBlocks` requests with what `blockOf` says, over whatever `Peer` speaks, which has `send(bytes)` and
/// `read(count)`. Ends earlier by what `Peer` throws.
template <class Peer, class BlockOf>
asio::awaitable<void> serveBlocks(Peer& peer, BlockOf blockOf, int maxBlocks = 1 << 30) {
    while (maxBlocks > 0) {
        const Bytes prefix = co_await peer.read(4);
        const Bytes message = co_await peer.read(readBigEndian<std::uint32_t>(prefix));
        if (message.empty() || message[0] != static_cast<std::uint8_t>(MessageID::request)) continue;
        const BlockRequest asked = ScriptedPeer::requestIn({message.begin() + 1, message.end()});
        Bytes answer(wire::pieceHeaderSize);
        wire::writePieceHeader(answer.data(), asked);
        const Bytes block = blockOf(asked);
        append(answer, block);
        co_await peer.send(std::move(answer));
        --maxBlocks;
    }
}

/// The same after it has shaken hands for the torrent that it is asked for, and said that it has everything.
template <class Peer, class BlockOf>
asio::awaitable<void> seedTo(Peer& peer, std::size_t bitfieldSize, BlockOf blockOf, int maxBlocks = 1 << 30) {
    Bytes opening = co_await peer.read(PeerHandshake::size);
    opening.resize(PeerHandshake::size - 20);
    opening.resize(PeerHandshake::size, 'x');
    wire::appendMessage(opening, MessageID::bitfield, Bytes(bitfieldSize, 0xFF));
    wire::appendMessage(opening, MessageID::unchoke);
    co_await peer.send(std::move(opening));
    co_await serveBlocks(peer, std::move(blockOf), maxBlocks);
}

}  // namespace skein
