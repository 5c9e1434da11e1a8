#pragma once

#include "Core/wire/PeerAddress.h"
#include "public/common/Bytes.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace skein {

/// The dictionaries that ride on the message `extended`. Source: BEP 10; ut_metadata: BEP 9; ut_pex: BEP 11.
/// Plain data, as sent: what an id or a size may be is for the reader to judge.

/// What a peer says of itself; each may be left out.
struct ExtendedHandshake {
    std::optional<std::int64_t> metadataID;
    std::optional<std::int64_t> pexID;
    std::optional<std::int64_t> metadataSize;  ///< bytes of the info dictionary
    std::optional<std::int64_t> requestQueue;  ///< block requests that the peer keeps, "reqq"

    /// Nothing when `payload` does not begin with a dictionary.
    static std::optional<ExtendedHandshake> decode(ByteView payload);
    Bytes encode() const;
};

struct MetadataMessage {
    static constexpr std::int64_t request = 0;
    static constexpr std::int64_t data = 1;
    static constexpr std::int64_t reject = 2;

    std::optional<std::int64_t> type;
    std::optional<std::int64_t> piece;
    ByteView bytes;  ///< what follows the dictionary; a view into the payload

    /// Nothing when `payload` does not begin with a bencoded value.
    static std::optional<MetadataMessage> decode(ByteView payload);
    static Bytes encodeRequest(std::int64_t piece);
    static Bytes encodeReject(std::int64_t piece);
    /// `totalSize` is that of the whole info dictionary.
    static Bytes encodeData(std::int64_t piece, std::int64_t totalSize, ByteView bytes);
};

namespace pex {

/// The peers under "added" and "added6", at most `limit` of them; a partial entry at the end is left out.
std::vector<PeerAddress> decode(ByteView payload, std::size_t limit);

}  // namespace pex

}  // namespace skein
