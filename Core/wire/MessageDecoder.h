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
    /// A message of `length` bytes is announced, which is above the limit: nothing is read after it.
    virtual void onOversized(std::size_t length) = 0;

protected:
    ~MessageSink() = default;
};

/// Cuts the byte stream of a peer into messages, in place. Source: BEP 3, "peer messages".
namespace wire {

/// Longest message that a peer may send, its length prefix not counted.
inline constexpr std::size_t maxMessageSize = 2'097'152;
inline constexpr std::size_t lengthPrefixSize = 4;

/// What a message costs the one who handles it, beside its own 1: so many bytes of those that are searched or parsed.
inline constexpr std::size_t bytesPerWork = 64;
/// No limit.
inline constexpr std::size_t allWork = static_cast<std::size_t>(-1);

struct Decoded {
    std::size_t bytes = 0;  ///< that the messages took
    bool hasMore = false;   ///< the work was used up, and there may be more whole messages
};

/// Hands the whole messages in `stream` to `sink`, until they have cost so much `work`. Messages with an unknown id or
/// too short a body are skipped. Throws PeerException (oversizedMessage) after `onOversized`.
Decoded decodeMessages(ByteView stream, MessageSink& sink, std::size_t work = allWork);

}  // namespace wire

}  // namespace skein
