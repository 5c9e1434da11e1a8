#pragma once

#include <cstdint>

namespace skein {

/// The two moduli in use. Most peers took a prime that ends otherwise than the one of RFC 2409.
enum class MSEPrime : std::uint8_t { deployed, rfc2409 };

}  // namespace skein
