#include "public/common/SHA1Lanes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

namespace skein {
namespace {

TEST(SHA1Lanes, givesTheDigestsOfTheMessagesOneByOne) {
    std::mt19937 random(1);
    for (std::size_t count = 1; count <= SHA1Lanes::maxMessages; ++count) {
        for (const std::size_t blocks : {0U, 1U, 2U, 37U}) {
            const std::size_t size = blocks * SHA1Lanes::blockSize + (count == 1 ? random() % 100 : 0);
            std::vector<Bytes> messages(count, Bytes(size));
            for (Bytes& message : messages) std::ranges::generate(message, random);
            SHA1Lanes lanes(count);
            for (std::size_t at = 0; at < size;) {
                const std::size_t part = std::min(size - at, SHA1Lanes::blockSize * (1 + random() % 5));
                std::vector<const std::uint8_t*> parts;
                for (const Bytes& message : messages) parts.push_back(message.data() + at);
                lanes.update(parts, part);
                at += part;
            }
            std::vector<SHA1Digest> expected;
            for (const Bytes& message : messages) expected.push_back(sha1(message));
            EXPECT_EQ(lanes.finish(), expected) << count << " messages of " << size;
        }
    }
}

}  // namespace
}  // namespace skein
