#pragma once

#include "public/common/Bytes.h"

#include <compare>
#include <cstdint>
#include <vector>

namespace skein {

class Random;

/// An unsigned integer of any size, with what a Diffie-Hellman exchange needs. Thread: any.
///
/// The time that it takes depends on the values: it hides a stream from traffic shaping, it guards no secret.
class BigUInt {
public:
    BigUInt() = default;
    explicit BigUInt(std::uint32_t value);
    static BigUInt fromBigEndian(ByteView bytes);
    /// `byteCount` random bytes, drawn again until they are above 0 and below `bound`, which must be above 1.
    static BigUInt random(Random& random, std::size_t byteCount, const BigUInt& bound);

    bool isZero() const noexcept { return limbs_.empty(); }
    /// 0 beyond the highest bit that is set.
    bool bit(std::size_t at) const noexcept;
    std::size_t bitCount() const noexcept;
    /// Padded with zeros on the left. The value must fit.
    Bytes fixedWidthBigEndianBytes(std::size_t count) const;
    /// Least significant first, without zeros at the end.
    const std::vector<std::uint32_t>& limbs() const noexcept { return limbs_; }

    BigUInt adding(const BigUInt& other) const;
    /// `other` must not be greater.
    BigUInt subtracting(const BigUInt& other) const;
    /// Both summands below `modulus`.
    static BigUInt modAdd(BigUInt a, const BigUInt& b, const BigUInt& modulus);
    /// `b` below `modulus`, `a` of any size. Forms nothing longer than the modulus and a bit.
    static BigUInt modMultiply(const BigUInt& a, const BigUInt& b, const BigUInt& modulus);
    /// `modulus` odd and above 1, as the primes of an exchange are; `base` of any size.
    static BigUInt modPow(const BigUInt& base, const BigUInt& exponent, const BigUInt& modulus);

    bool operator==(const BigUInt& other) const = default;
    std::strong_ordering operator<=>(const BigUInt& other) const noexcept;

private:
    explicit BigUInt(std::vector<std::uint32_t> limbs);
    void add(const BigUInt& other);
    void modAdd(const BigUInt& other, const BigUInt& modulus);
    void subtract(const BigUInt& other);
    void normalize();

    std::vector<std::uint32_t> limbs_;
};

}  // namespace skein
