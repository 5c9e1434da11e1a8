#include "Core/wire/RC4.h"

#include <cassert>
#include <utility>

namespace skein {

RC4::RC4(ByteView key, std::size_t discardBytes) {
    assert(!key.empty() && key.size() <= s_.size());
    for (std::uint32_t i = 0; i < s_.size(); ++i) s_[i] = i;
    std::uint32_t j = 0;
    for (std::size_t i = 0; i < s_.size(); ++i) {
        j = (j + s_[i] + key[i % key.size()]) & 255U;
        std::swap(s_[i], s_[j]);
    }
    for (; discardBytes > 0; --discardBytes) nextByte();
}

std::uint8_t RC4::nextByte() noexcept {
    i_ = (i_ + 1) & 255U;
    const std::uint32_t first = s_[i_];
    j_ = (j_ + first) & 255U;
    const std::uint32_t second = s_[j_];
    s_[i_] = second;
    s_[j_] = first;
    return static_cast<std::uint8_t>(s_[(first + second) & 255U]);
}

void RC4::apply(ByteView data, std::uint8_t* into) noexcept {
    // The indices live in registers while the loop runs: a store through `into` might otherwise change them.
    std::uint32_t i = i_;
    std::uint32_t j = j_;
    for (const std::uint8_t byte : data) {
        i = (i + 1) & 255U;
        const std::uint32_t first = s_[i];
        j = (j + first) & 255U;
        const std::uint32_t second = s_[j];
        s_[i] = second;
        s_[j] = first;
        *into++ = static_cast<std::uint8_t>(byte ^ s_[(first + second) & 255U]);
    }
    i_ = i;
    j_ = j;
}

}  // namespace skein
