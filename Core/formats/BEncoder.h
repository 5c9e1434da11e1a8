#pragma once

#include "Core/formats/BEncodeError.h"
#include "Core/formats/BEncodeValue.h"
#include "public/common/Bytes.h"

#include <cstddef>
#include <functional>
#include <optional>

/// The one bencode codec. Source: BEP 3, "bencoding". Stateless; any thread.
///
/// Decoding throws BEncodeException, takes one value from the front and ignores what follows it. It takes time in
/// proportion to the input, and memory of at most `maxGrowth` times the input (or `freeBytes`): what would take more is
/// refused. It is lenient where deployed encoders are: leading zeros,
/// a plus sign, unsorted and repeated keys.
namespace skein::BEncoder {

/// Lists and dictionaries inside of each other; deeper is refused, so that recursion ends before the stack does.
inline constexpr int maxNesting = 128;
/// An empty list is two bytes and takes forty as a value: nobody sends millions of them for a good reason.
inline constexpr std::size_t maxGrowth = 4;
/// What any input may take.
inline constexpr std::size_t freeBytes = std::size_t{4} << 20U;

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
/// A torrent without what may be a million values long. That is walked over, held to the same rules as all else.
struct TorrentOutline {
    struct List {
        ByteRange range;
        std::size_t count = 0;  ///< of its elements
    };

    /// Of the `info` dictionary: without `files`, where that is a list; of `file tree` that it is there.
    BEncodeValue value;
    std::optional<ByteRange> info;  ///< of the bytes that `value["info"]` was decoded from
    std::optional<List> files;      ///< where `info` has its list of files
    std::size_t consumed = 0;       ///< bytes of `data` that the value took
};
/// Of a whole `.torrent`. The ranges are found by the keys of the dictionaries, never by a search of the bytes: what is
/// hashed under them is what is read.
TorrentOutline outlineOfTorrent(ByteView data);
/// Of a bare info dictionary, which `value` and `info` are then.
TorrentOutline outlineOfInfo(ByteView data);

/// Decodes the elements of `list`, a whole list, one by one.
void forEachElement(ByteView list, const std::function<void(const BEncodeValue& element)>& visit);

/// Dictionaries are written with their keys in byte order.
Bytes encode(const BEncodeValue& value);

}  // namespace skein::BEncoder
