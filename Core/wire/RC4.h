#pragma once

#include "public/common/Bytes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace skein {

/// The stream cipher that message stream encryption uses. Source: RFC 6229 (its keystreams).
class RC4 {
public:
    /// `key` of 1 to 256 bytes. The first `discardBytes` of the keystream are thrown away.
    explicit RC4(ByteView key, std::size_t discardBytes = 0);

    std::uint8_t nextByte() noexcept;
    /// Encrypts or decrypts in place.
    void apply(std::span<std::uint8_t> data) noexcept { apply(data, data.data()); }
    /// The same from `data` to `into`, which has room for it and is `data` itself or apart from it.
    void apply(ByteView data, std::uint8_t* into) noexcept;

private:
    // Wider than their values: a processor reads back at once what it wrote in the same width.
    std::array<std::uint32_t, 256> s_{};
    std::uint32_t i_ = 0;
    std::uint32_t j_ = 0;
};

}  // namespace skein
