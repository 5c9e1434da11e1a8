#pragma once

#include "Core/formats/BEncodeError.h"
#include "Core/formats/BEncodeValue.h"
#include "public/common/Bytes.h"

#include <cstddef>
#include <optional>

/// The one bencode codec. Source: BEP 3, "bencoding". Stateless; any thread.
///
/// Decoding throws BEncodeException, takes one value from the front and ignores what follows it. It takes time and
/// memory in proportion to the input, whatever the input is. It is lenient where deployed encoders are: leading zeros,
/// a plus sign, unsorted and repeated keys.
namespace skein::BEncoder {

/// Lists and dictionaries inside of each other; deeper is refused, so that recursion ends before the stack does.
inline constexpr int maxNesting = 128;

BEncodeValue decode(ByteView data);

struct DecodedPrefix {
    BEncodeValue value;
    std::size_t consumed = 0;  ///< bytes of `data` that the value took
};
DecodedPrefix decodeWithConsumedLength(ByteView data);

struct ByteRange {
    std::size_t begin = 0;
    std::size_t end = 0;  ///< one past the last
    friend bool operator==(const ByteRange&, const ByteRange&) = default;
};
struct DecodedTorrent {
    BEncodeValue value;
    std::optional<ByteRange> infoRange;  ///< of the bytes that `value["info"]` was decoded from
};
/// As `decode`. The range is found by the keys of the top-level dictionary, never by a search of the bytes: what is
/// hashed under it is what is read.
DecodedTorrent decodeWithInfoRange(ByteView data);

/// Dictionaries are written with their keys in byte order.
Bytes encode(const BEncodeValue& value);

}  // namespace skein::BEncoder
