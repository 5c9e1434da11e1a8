#include "Core/wire/BigUInt.h"

#include "public/common/Random.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <utility>

namespace skein {

namespace {

using Limbs = std::vector<std::uint32_t>;
constexpr unsigned limbBits = 32;

constexpr std::uint32_t low(std::uint64_t value) noexcept { return static_cast<std::uint32_t>(value); }

/// Products modulo an odd number without a division: a number x stands as x·R, where R = 2^(bits of the limbs).
/// Source: P. Montgomery, "Modular multiplication without trial division"; the interleaved form.
class Montgomery {
public:
    explicit Montgomery(const Limbs& modulus) : modulus_(modulus), sum_(modulus.size() + 2) {
        // Newton's iteration doubles the correct bits: 3 (an odd number is its own inverse modulo 8), 6, 12, 24, 48.
        std::uint32_t inverse = modulus.front();
        for (int i = 0; i < 4; ++i) inverse *= 2 - modulus.front() * inverse;
        negativeInverse_ = 0 - inverse;
    }

    /// `product` = a·b/R modulo the modulus; it may be one of the factors. All have the modulus's length.
    void multiply(const Limbs& a, const Limbs& b, Limbs& product) {
        const std::size_t count = modulus_.size();
        std::fill(sum_.begin(), sum_.end(), 0);
        for (std::size_t i = 0; i < count; ++i) {
            std::uint64_t carry = 0;
            for (std::size_t j = 0; j < count; ++j) {
                carry += std::uint64_t{a[i]} * b[j] + sum_[j];
                sum_[j] = low(carry);
                carry >>= limbBits;
            }
            carry += sum_[count];
            sum_[count] = low(carry);
            sum_[count + 1] = low(carry >> limbBits);

            const std::uint32_t factor = sum_[0] * negativeInverse_;
            carry = (std::uint64_t{factor} * modulus_[0] + sum_[0]) >> limbBits;
            for (std::size_t j = 1; j < count; ++j) {
                carry += std::uint64_t{factor} * modulus_[j] + sum_[j];
                sum_[j - 1] = low(carry);
                carry >>= limbBits;
            }
            carry += sum_[count];
            sum_[count - 1] = low(carry);
            sum_[count] = low(sum_[count + 1] + (carry >> limbBits));
        }
        reduceOnce(product);
    }

private:
    /// The sum is below twice the modulus.
    void reduceOnce(Limbs& product) const {
        const std::size_t count = modulus_.size();
        const bool isBelow = sum_[count] == 0 && std::lexicographical_compare(sum_.rbegin() + 2, sum_.rend(),
                                                                              modulus_.rbegin(), modulus_.rend());
        std::uint64_t borrow = 0;
        for (std::size_t i = 0; i < count; ++i) {
            const std::uint64_t difference = std::uint64_t{sum_[i]} - (isBelow ? 0 : modulus_[i]) - borrow;
            product[i] = low(difference);
            borrow = difference >> 63U;
        }
    }

    const Limbs& modulus_;
    std::uint32_t negativeInverse_ = 0;
    Limbs sum_;
};

}  // namespace

BigUInt::BigUInt(std::uint32_t value) : limbs_(value == 0 ? 0 : 1, value) {}

BigUInt::BigUInt(std::vector<std::uint32_t> limbs) : limbs_(std::move(limbs)) { normalize(); }

BigUInt BigUInt::fromBigEndian(ByteView bytes) {
    Limbs limbs((bytes.size() + 3) / 4);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        limbs[i / 4] |= std::uint32_t{bytes[bytes.size() - 1 - i]} << (i % 4 * 8);
    return BigUInt(std::move(limbs));
}

BigUInt BigUInt::random(Random& random, std::size_t byteCount, const BigUInt& bound) {
    assert(bound > BigUInt(1));
    Bytes bytes(byteCount);
    BigUInt drawn;
    do {
        random.fill(bytes);
        drawn = fromBigEndian(bytes);
    } while (drawn.isZero() || drawn >= bound);
    return drawn;
}

bool BigUInt::bit(std::size_t at) const noexcept {
    return at / limbBits < limbs_.size() && (limbs_[at / limbBits] >> (at % limbBits) & 1U) != 0;
}

std::size_t BigUInt::bitCount() const noexcept {
    return isZero() ? 0 : limbs_.size() * limbBits - static_cast<std::size_t>(std::countl_zero(limbs_.back()));
}

Bytes BigUInt::fixedWidthBigEndianBytes(std::size_t count) const {
    assert(bitCount() <= count * 8);
    Bytes bytes(count);
    for (std::size_t i = 0; i < std::min(count, limbs_.size() * 4); ++i)
        bytes[count - 1 - i] = static_cast<std::uint8_t>(limbs_[i / 4] >> (i % 4 * 8));
    return bytes;
}

BigUInt BigUInt::adding(const BigUInt& other) const {
    BigUInt sum = *this;
    sum.add(other);
    return sum;
}

BigUInt BigUInt::subtracting(const BigUInt& other) const {
    BigUInt difference = *this;
    difference.subtract(other);
    return difference;
}

/// `other` may be this number itself.
void BigUInt::add(const BigUInt& other) {
    const std::size_t length = other.limbs_.size();
    if (limbs_.size() < length) limbs_.resize(length);
    std::uint64_t carry = 0;
    for (std::size_t i = 0; i < limbs_.size() && (i < length || carry != 0); ++i) {
        carry += std::uint64_t{limbs_[i]} + (i < length ? other.limbs_[i] : 0);
        limbs_[i] = low(carry);
        carry >>= limbBits;
    }
    if (carry != 0) limbs_.push_back(low(carry));
}

void BigUInt::subtract(const BigUInt& other) {
    assert(*this >= other);
    const std::size_t length = other.limbs_.size();
    std::uint64_t borrow = 0;
    for (std::size_t i = 0; i < limbs_.size() && (i < length || borrow != 0); ++i) {
        const std::uint64_t difference = std::uint64_t{limbs_[i]} - (i < length ? other.limbs_[i] : 0) - borrow;
        limbs_[i] = low(difference);
        borrow = difference >> 63U;
    }
    normalize();
}

void BigUInt::normalize() {
    while (!limbs_.empty() && limbs_.back() == 0) limbs_.pop_back();
}

BigUInt BigUInt::modAdd(BigUInt a, const BigUInt& b, const BigUInt& modulus) {
    a.modAdd(b, modulus);
    return a;
}

void BigUInt::modAdd(const BigUInt& other, const BigUInt& modulus) {
    assert(*this < modulus && other < modulus);
    add(other);
    if (*this >= modulus) subtract(modulus);
}

BigUInt BigUInt::modMultiply(const BigUInt& a, const BigUInt& b, const BigUInt& modulus) {
    BigUInt product;
    for (std::size_t at = a.bitCount(); at-- > 0;) {
        product.modAdd(product, modulus);
        if (a.bit(at)) product.modAdd(b, modulus);
    }
    return product;
}

BigUInt BigUInt::modPow(const BigUInt& base, const BigUInt& exponent, const BigUInt& modulus) {
    assert(modulus.bit(0) && modulus > BigUInt(1));
    constexpr std::size_t windowBits = 4;
    const std::size_t length = modulus.limbs_.size();
    BigUInt one(1);  // as R modulo the modulus
    for (std::size_t i = 0; i < length * limbBits; ++i) one.modAdd(one, modulus);
    Montgomery montgomery(modulus.limbs_);
    std::array<Limbs, std::size_t{1} << windowBits> powers;
    powers[0] = one.limbs_;
    powers[1] = modMultiply(base, one, modulus).limbs_;
    powers[0].resize(length);
    powers[1].resize(length);
    for (std::size_t i = 2; i < powers.size(); ++i) {
        powers[i].resize(length);
        montgomery.multiply(powers[i - 1], powers[1], powers[i]);
    }

    Limbs power = powers[0];
    for (std::size_t at = (exponent.bitCount() + windowBits - 1) / windowBits; at-- > 0;) {
        std::size_t window = 0;
        for (std::size_t i = windowBits; i-- > 0;) {
            montgomery.multiply(power, power, power);
            window = window << 1U | (exponent.bit(at * windowBits + i) ? 1U : 0U);
        }
        montgomery.multiply(power, powers[window], power);
    }
    Limbs unit(length);
    unit[0] = 1;
    montgomery.multiply(power, unit, power);
    return BigUInt(std::move(power));
}

std::strong_ordering BigUInt::operator<=>(const BigUInt& other) const noexcept {
    if (limbs_.size() != other.limbs_.size()) return limbs_.size() <=> other.limbs_.size();
    return std::lexicographical_compare_three_way(limbs_.rbegin(), limbs_.rend(), other.limbs_.rbegin(),
                                                  other.limbs_.rend());
}

}  // namespace skein
