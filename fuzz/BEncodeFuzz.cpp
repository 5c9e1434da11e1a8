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

/// The bytes that are hashed are those that the value was read from.
void infoRange(ByteView data) {
    const auto [value, range] = BEncoder::decodeWithInfoRange(data);
    check(value == BEncoder::decode(data));
    check(range.has_value() == (value["info"] != nullptr));
    if (!range) return;
    check(range->begin < range->end && range->end <= data.size());
    const auto info = BEncoder::decodeWithConsumedLength(data.subspan(range->begin, range->end - range->begin));
    check(info.consumed == range->end - range->begin);
    check(info.value == *value["info"]);
}

}  // namespace
}  // namespace skein

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    for (const auto property : {skein::roundTrip, skein::infoRange}) {
        try {
            property({data, size});
        } catch (const skein::BEncodeException& failure) {
            skein::check(failure.what()[0] != '\0');
        }
    }
    return 0;
}
