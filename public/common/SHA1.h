#pragma once

#include "public/common/Bytes.h"

#include <array>
#include <memory>

struct evp_md_ctx_st;

namespace skein {

inline constexpr std::size_t sha1Length = 20;
using SHA1Digest = std::array<std::uint8_t, sha1Length>;

/// SHA-1 over bytes that come in pieces. Not thread-safe; several hashers may run side by side.
class SHA1Hasher {
public:
    SHA1Hasher();
    void update(ByteView bytes);
    /// The digest of all that was given, and a fresh start.
    SHA1Digest finish();

private:
    struct Free {
        void operator()(evp_md_ctx_st* context) const noexcept;
    };
    std::unique_ptr<evp_md_ctx_st, Free> context_;
};

SHA1Digest sha1(ByteView bytes);

}  // namespace skein
