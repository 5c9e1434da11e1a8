#pragma once

#include "public/common/Bytes.h"

#include <cstddef>
#include <cstdint>

namespace skein {

/// Takes the messages of a peer, one call each, in order. The views last as long as the call.
class MessageSink {
public:
    MessageSink() = default;
    MessageSink(const MessageSink&) = delete;
    MessageSink& operator=(const MessageSink&) = delete;

    virtual void onChoke(bool isChoked) = 0;
    virtual void onInterested(bool isInterested) = 0;
    virtual void onHave(std::uint32_t piece) = 0;
    virtual void onBitfield(ByteView bitfield) = 0;
    virtual void onRequest(std::uint32_t piece, std::uint32_t begin, std::uint32_t length) = 0;
    virtual void onCancel(std::uint32_t piece, std::uint32_t begin, std::uint32_t length) = 0;
    virtual void onPiece(std::uint32_t piece, std::uint32_t begin, ByteView block) = 0;
    /// `body` is what follows message id 20: the extended id and its payload; never empty.
    virtual void onExtended(ByteView body) = 0;

protected:
    ~MessageSink() = default;
};

/// Cuts the byte stream of a peer into messages, in place. Source: BEP 3, "peer messages".
namespace wire {

/// Longest message that a peer may send, its length prefix not counted.
inline constexpr std::size_t maxMessageSize = 2'097'152;
inline constexpr std::size_t lengthPrefixSize = 4;

/// Hands every whole message in `stream` to `sink` and returns how many bytes they took. Messages with an unknown id
/// or too short a body are skipped. Throws PeerException (oversizedMessage) at a length above the limit.
std::size_t decodeMessages(ByteView stream, MessageSink& sink);

}  // namespace wire

}  // namespace skein
