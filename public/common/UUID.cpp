#include "public/common/UUID.h"

namespace skein {

UUID UUID::random(Random& random) {
    UUID id;
    random.fill(id.bytes);
    id.bytes[6] = static_cast<std::uint8_t>((id.bytes[6] & 0x0FU) | 0x40U);
    id.bytes[8] = static_cast<std::uint8_t>((id.bytes[8] & 0x3FU) | 0x80U);
    return id;
}

std::string UUID::text() const {
    std::string digits = toUpperHex(bytes);
    for (const std::size_t dash : {8U, 13U, 18U, 23U}) digits.insert(dash, 1, '-');
    return digits;
}

}  // namespace skein
