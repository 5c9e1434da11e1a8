#include "Core/wire/BigUInt.h"

#include "public/common/Random.h"

#include <openssl/bn.h>

#include <algorithm>
#include <cassert>
#include <memory>
#include <new>

namespace skein {

namespace {

struct Freed {
    void operator()(BIGNUM* number) const noexcept { BN_clear_free(number); }
    void operator()(BN_CTX* context) const noexcept { BN_CTX_free(context); }
};
using Number = std::unique_ptr<BIGNUM, Freed>;

Number numberOf(ByteView bigEndian) {
    Number number(BN_bin2bn(bigEndian.data(), static_cast<int>(bigEndian.size()), nullptr));
    if (!number) throw std::bad_alloc();
    return number;
}

}  // namespace

BigUInt::BigUInt(std::uint32_t value) {
    for (; value != 0; value >>= 8U) bytes_.insert(bytes_.begin(), static_cast<std::uint8_t>(value));
}

BigUInt BigUInt::fromBigEndian(ByteView bytes) {
    BigUInt number;
    number.bytes_.assign(std::find_if(bytes.begin(), bytes.end(), [](std::uint8_t byte) { return byte != 0; }),
                         bytes.end());
    return number;
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

Bytes BigUInt::fixedWidthBigEndianBytes(std::size_t count) const {
    assert(bytes_.size() <= count);
    Bytes bytes(count);
    std::copy_backward(bytes_.begin(), bytes_.end(), bytes.end());
    return bytes;
}

BigUInt BigUInt::modPow(const BigUInt& base, const BigUInt& exponent, const BigUInt& modulus) {
    assert(modulus > BigUInt(1) && modulus.bytes_.back() % 2 == 1);
    const Number power = numberOf(exponent.bytes_);
    const Number modulo = numberOf(modulus.bytes_);
    const Number result = numberOf(base.bytes_);
    const std::unique_ptr<BN_CTX, Freed> context(BN_CTX_new());
    BN_set_flags(power.get(), BN_FLG_CONSTTIME);
    const bool isDone = context && BN_nnmod(result.get(), result.get(), modulo.get(), context.get()) == 1 &&
                        BN_mod_exp(result.get(), result.get(), power.get(), modulo.get(), context.get()) == 1;
    if (!isDone) throw std::bad_alloc();  // the only way in which they fail
    Bytes bytes(static_cast<std::size_t>(BN_num_bytes(result.get())));
    BN_bn2bin(result.get(), bytes.data());
    return fromBigEndian(bytes);
}

std::strong_ordering BigUInt::operator<=>(const BigUInt& other) const noexcept {
    if (bytes_.size() != other.bytes_.size()) return bytes_.size() <=> other.bytes_.size();
    return std::lexicographical_compare_three_way(bytes_.begin(), bytes_.end(), other.bytes_.begin(),
                                                  other.bytes_.end());
}

}  // namespace skein
