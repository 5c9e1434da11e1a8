#include "Core/formats/BEncoder.h"
#include "fuzz/Check.h"

namespace skein {
namespace {

/// What was decoded and encoded is decoded to itself from then on, and trailing bytes have no say in it.
void roundTrip(ByteView data) {
    const auto [value, consumed] = BEncoder::decodeWithConsumedLength(data);
    check(consumed <= data.size());
    check(BEncoder::decode(data.first(consumed)) == value);
    const Bytes encoded = BEncoder::encode(value);
    const auto again = BEncoder::decodeWithConsumedLength(encoded);
    check(again.consumed == encoded.size());
    check(BEncoder::encode(again.value) == encoded);
}

/// The bytes that are hashed are those that the value was read from, and a list of files that is read one by one is the
/// one that would have been decoded.
void outline(ByteView data) {
    const auto [value, info, files, consumed] = BEncoder::outlineOfTorrent(data);
    check(info.has_value() == (value["info"] != nullptr));
    if (!info) return;
    check(info->begin < info->end && info->end <= consumed && consumed <= data.size());
    const ByteView infoData = data.subspan(info->begin, info->end - info->begin);
    const auto bare = BEncoder::outlineOfInfo(infoData);
    check(bare.consumed == infoData.size() && bare.value == *value["info"]);
    check(bare.files.has_value() == files.has_value());
    const auto whole = BEncoder::decode(infoData);
    const BEncodeValue::List* const list = whole.listAt("files");
    check(files.has_value() == (list != nullptr));
    if (!files) return;
    check(files->count == list->size());
    auto expected = list->begin();
    BEncoder::forEachElement(data.subspan(files->range.begin, files->range.end - files->range.begin),
                             [&](const BEncodeValue& element) { check(element == *expected++); });
    check(expected == list->end());
}

}  // namespace
}  // namespace skein

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    for (const auto property : {skein::roundTrip, skein::outline}) {
        try {
            property({data, size});
        } catch (const skein::BEncodeException& failure) {
            skein::check(failure.what()[0] != '\0');
        }
    }
    return 0;
}
