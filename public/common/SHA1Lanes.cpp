#include "public/common/SHA1Lanes.h"

#include <cstring>
#include <utility>

namespace skein {

namespace {

constexpr std::size_t wordsPerBlock = 16;
constexpr std::size_t rounds = 80;
constexpr std::array<std::uint32_t, 5> initialState{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};

#if defined(__x86_64__)

// All of this is inlined into one function for each kind of vector, and compiled with that kind's instructions.

template <std::size_t lanes>
struct Vector {
    typedef std::uint32_t Words __attribute__((vector_size(lanes * 4)));  // NOLINT(modernize-use-using): as clang wants
    typedef std::uint8_t Octets __attribute__((vector_size(lanes * 4)));  // NOLINT(modernize-use-using)
};
template <std::size_t lanes>
using Words = typename Vector<lanes>::Words;

template <int bits, class V>
[[gnu::always_inline]] inline void rotateLeft(V& value) {
    value = (value << bits) | (value >> (32 - bits));
}

template <std::size_t lanes, std::size_t... i>
[[gnu::always_inline]] inline void interleave(Words<lanes>& low, Words<lanes>& high, const Words<lanes>& a,
                                              const Words<lanes>& b, std::index_sequence<i...> /*lane*/) {
    low = __builtin_shufflevector(a, b, (i / 2 + i % 2 * lanes)...);
    high = __builtin_shufflevector(a, b, (lanes / 2 + i / 2 + i % 2 * lanes)...);
}

template <std::size_t lanes, std::size_t... i>
[[gnu::always_inline]] inline void swapBytes(Words<lanes>& words, std::index_sequence<i...> /*octet*/) {
    const auto octets = reinterpret_cast<const typename Vector<lanes>::Octets&>(words);
    const typename Vector<lanes>::Octets swapped = __builtin_shufflevector(octets, octets, (i / 4 * 4 + 3 - i % 4)...);
    std::memcpy(&words, &swapped, sizeof words);
}

/// The block's words, each with that of every lane: a square of words is turned by interleaving its halves again and
/// again.
template <std::size_t lanes>
[[gnu::always_inline]] inline void load(std::array<Words<lanes>, wordsPerBlock>& words,
                                        const std::uint8_t* const* messages) {
    for (std::size_t square = 0; square < wordsPerBlock / lanes; ++square) {
        std::array<Words<lanes>, lanes> rows{};
        for (std::size_t lane = 0; lane < lanes; ++lane)
            std::memcpy(&rows[lane], messages[lane] + square * lanes * 4, sizeof rows[lane]);
        for (std::size_t step = 1; step < lanes; step *= 2) {
            std::array<Words<lanes>, lanes> next{};
            for (std::size_t i = 0; i < lanes / 2; ++i)
                interleave<lanes>(next[2 * i], next[2 * i + 1], rows[i], rows[i + lanes / 2],
                                  std::make_index_sequence<lanes>());
            rows = next;
        }
        for (std::size_t word = 0; word < lanes; ++word) {
            swapBytes<lanes>(rows[word], std::make_index_sequence<lanes * 4>());
            words[square * lanes + word] = rows[word];
        }
    }
}

template <std::size_t t, std::size_t lanes>
[[gnu::always_inline]] inline void round(std::array<Words<lanes>, 5>& state,
                                         std::array<Words<lanes>, wordsPerBlock>& schedule) {
    // The five variables keep their places, and change their roles from round to round.
    auto& a = state[(rounds - t) % 5];
    auto& b = state[(rounds - t + 1) % 5];
    auto& c = state[(rounds - t + 2) % 5];
    auto& d = state[(rounds - t + 3) % 5];
    auto& e = state[(rounds - t + 4) % 5];
    auto& word = schedule[t % wordsPerBlock];
    if constexpr (t >= wordsPerBlock) {
        word ^=
            schedule[(t + 13) % wordsPerBlock] ^ schedule[(t + 8) % wordsPerBlock] ^ schedule[(t + 2) % wordsPerBlock];
        rotateLeft<1>(word);
    }
    if constexpr (t < 20) {
        e += (d ^ (b & (c ^ d))) + 0x5A827999U;
    } else if constexpr (t < 40) {
        e += (b ^ c ^ d) + 0x6ED9EBA1U;
    } else if constexpr (t < 60) {
        e += ((b & c) | (d & (b | c))) + 0x8F1BBCDCU;
    } else {
        e += (b ^ c ^ d) + 0xCA62C1D6U;
    }
    Words<lanes> rotated = a;
    rotateLeft<5>(rotated);
    e += rotated + word;
    rotateLeft<30>(b);
}

template <std::size_t lanes, std::size_t... t>
[[gnu::always_inline]] inline void compressBlock(std::array<Words<lanes>, 5>& state,
                                                 const std::uint8_t* const* messages,
                                                 std::index_sequence<t...> /*round*/) {
    std::array<Words<lanes>, wordsPerBlock> schedule{};
    load<lanes>(schedule, messages);
    const std::array<Words<lanes>, 5> before = state;
    (round<t, lanes>(state, schedule), ...);
    for (std::size_t i = 0; i < 5; ++i) state[i] += before[i];
}

template <std::size_t lanes>
[[gnu::always_inline]] inline void compress(std::uint32_t* states, const std::uint8_t* const* messages,
                                            std::size_t blocks) {
    std::array<Words<lanes>, 5> state{};
    static_assert(sizeof state == sizeof(std::uint32_t) * 5 * lanes);
    std::memcpy(&state, states, sizeof state);
    std::array<const std::uint8_t*, lanes> at{};
    std::memcpy(at.data(), messages, sizeof at);
    for (; blocks > 0; --blocks) {
        compressBlock<lanes>(state, at.data(), std::make_index_sequence<rounds>());
        for (const std::uint8_t*& message : at) message += SHA1Lanes::blockSize;
    }
    std::memcpy(states, &state, sizeof state);
}

[[gnu::target("avx512f,avx512bw,avx512vl")]] void compressBy16(std::uint32_t* states,
                                                               const std::uint8_t* const* messages,
                                                               std::size_t blocks) {
    compress<16>(states, messages, blocks);
}

[[gnu::target("avx2")]] void compressBy8(std::uint32_t* states, const std::uint8_t* const* messages,
                                         std::size_t blocks) {
    compress<8>(states, messages, blocks);
}

#endif

}  // namespace

struct SHA1Lanes::Kernel {
    std::size_t lanes;
    std::size_t leastMessages;  ///< fewer are faster one by one
    Compress compress;
};

/// Those that this processor runs, the widest first.
std::span<const SHA1Lanes::Kernel> SHA1Lanes::kernels() {
    static const std::vector<Kernel> usable = [] {
        std::vector<Kernel> kernels;
#if defined(__x86_64__)
        if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
            __builtin_cpu_supports("avx512vl"))
            kernels.push_back({16, 9, compressBy16});
        if (__builtin_cpu_supports("avx2")) kernels.push_back({8, 6, compressBy8});
#endif
        return kernels;
    }();
    return usable;
}

std::size_t SHA1Lanes::bestCount() { return kernels().empty() ? 1 : kernels().front().lanes; }

SHA1Lanes::SHA1Lanes(std::size_t count) : count_(count) {
    for (const Kernel& kernel : kernels()) {
        if (count < kernel.leastMessages || count > kernel.lanes) continue;
        lanes_ = kernel.lanes;
        compress_ = kernel.compress;
        break;
    }
    if (compress_ == nullptr) hashers_ = std::vector<SHA1Hasher>(count);
    for (std::size_t word = 0; word < initialState.size(); ++word)
        std::fill_n(&states_[word * lanes_], lanes_, initialState[word]);
}

void SHA1Lanes::update(std::span<const std::uint8_t* const> messages, std::size_t size) {
    size_ += size;
    for (std::size_t i = 0; i < hashers_.size(); ++i) hashers_[i].update({messages[i], size});
    if (compress_ == nullptr) return;
    std::array<const std::uint8_t*, maxMessages> lanes{};
    lanes.fill(messages.front());  // those without a message do the first one's work again
    std::ranges::copy(messages, lanes.begin());
    compress_(states_.data(), lanes.data(), size / blockSize);
}

std::vector<SHA1Digest> SHA1Lanes::finish() {
    std::vector<SHA1Digest> digests(count_);
    for (std::size_t i = 0; i < hashers_.size(); ++i) digests[i] = hashers_[i].finish();
    if (compress_ == nullptr) return digests;
    std::array<std::uint8_t, blockSize> padding{0x80};
    writeBigEndian(&padding[blockSize - sizeof size_], size_ * 8);
    std::array<const std::uint8_t*, maxMessages> lanes{};
    lanes.fill(padding.data());
    compress_(states_.data(), lanes.data(), 1);
    for (std::size_t i = 0; i < count_; ++i)
        for (std::size_t word = 0; word < initialState.size(); ++word)
            writeBigEndian(&digests[i][word * 4], states_[word * lanes_ + i]);
    return digests;
}

}  // namespace skein
