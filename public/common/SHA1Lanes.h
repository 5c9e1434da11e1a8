#pragma once

#include "public/common/Bytes.h"
#include "public/common/SHA1.h"

#include <array>
#include <cstdint>
#include <span>
#include <vector>

namespace skein {

/// SHA-1 (FIPS 180-4) of several messages of one length side by side, each in a lane of the processor's vectors.
///
/// SHA-1 is one long chain of dependent steps, even where the processor has instructions for it; wide vectors run
/// several such chains in the time of one. Where the processor has no such vectors, or there are too few messages for
/// them, the messages are hashed one after the other. Not thread-safe; several may run side by side.
class SHA1Lanes {
public:
    static constexpr std::size_t maxMessages = 16;
    static constexpr std::size_t blockSize = 64;

    /// How many messages are hashed best at a time on this processor; 1 where there is nothing to gain.
    static std::size_t bestCount();

    /// For `count` messages, at most `maxMessages`.
    explicit SHA1Lanes(std::size_t count);

    /// `size` more bytes of every message, in the order of the messages; whole blocks unless there is only one message.
    void update(std::span<const std::uint8_t* const> messages, std::size_t size);
    /// The digests of all that was given. Once.
    std::vector<SHA1Digest> finish();

private:
    /// Takes `blocks` blocks from each of as many messages as it has lanes. The states lie word by word: the first
    /// word of all lanes, then the second.
    using Compress = void (*)(std::uint32_t* states, const std::uint8_t* const* messages, std::size_t blocks);
    struct Kernel;
    static std::span<const Kernel> kernels();

    std::size_t count_;
    std::size_t lanes_ = 0;
    Compress compress_ = nullptr;
    std::uint64_t size_ = 0;
    alignas(64) std::array<std::uint32_t, 5 * maxMessages> states_{};
    std::vector<SHA1Hasher> hashers_;  // without a kernel: one a message
};

}  // namespace skein
