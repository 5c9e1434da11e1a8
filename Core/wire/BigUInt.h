#pragma once

#include "public/common/Bytes.h"

#include <compare>
#include <cstddef>
#include <cstdint>

namespace skein {

class Random;

/// An unsigned integer of any size, with what a Diffie-Hellman exchange needs. A value; any thread.
class BigUInt {
public:
    explicit BigUInt(std::uint32_t value = 0);
    static BigUInt fromBigEndian(ByteView bytes);
    /// `byteCount` random bytes, drawn again until they are above 0 and below `bound`, which must be above 1.
    static BigUInt random(Random& random, std::size_t byteCount, const BigUInt& bound);

    bool isZero() const noexcept { return bytes_.empty(); }
    /// Padded with zeros on the left. The value must fit.
    Bytes fixedWidthBigEndianBytes(std::size_t count) const;

    /// `modulus` odd and above 1, as the primes of an exchange are; `base` of any size. Takes the same time for all
    /// exponents of one length. Throws std::bad_alloc.
    static BigUInt modPow(const BigUInt& base, const BigUInt& exponent, const BigUInt& modulus);

    bool operator==(const BigUInt& other) const = default;
    std::strong_ordering operator<=>(const BigUInt& other) const noexcept;

private:
    Bytes bytes_;  // most significant first, without zeros in front
};

}  // namespace skein
