#include "public/common/Random.h"

#include "public/common/FatalFault.h"

#include <openssl/rand.h>

#include <array>

namespace skein {

std::uint32_t Random::number() {
    std::array<std::uint8_t, 4> bytes{};
    fill(bytes);
    return readBigEndian<std::uint32_t>(bytes);
}

void SecureRandom::fill(std::span<std::uint8_t> bytes) {
    if (RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) endProgram("the random source failed");
}

}  // namespace skein
