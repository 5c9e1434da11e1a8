#include "Core/wire/PeerAddress.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace skein {
namespace {

TEST(PeerAddress, readsWhatItWrites) {
    for (const char* text : {"1.2.3.4:6881", "[2001:db8::1]:65535", "[fe80::1%eth0]:6881", "peer.example:1"}) {
        const auto address = PeerAddress::parse(text);
        ASSERT_TRUE(address) << text;
        EXPECT_EQ(address->description(), text);
    }
    EXPECT_EQ(PeerAddress::parse("[2001:DB8:0::0:1]:5")->host, "2001:db8::1");
    for (const char* text : {"", "1.2.3.4", "1.2.3.4:", "1.2.3.4:0", "1.2.3.4:65536", "1.2.3.4:-1", "1.2.3.4:1x", ":80",
                             "::1:80", "[::1:80", "[::1]80", "[1.2.3.4]:80", "[name]:80", "a b:80", "a/b:80", "u@h:80"})
        EXPECT_FALSE(PeerAddress::parse(text)) << text;
    EXPECT_FALSE(PeerAddress::parse(std::string(256, 'a') + ":80"));
}

TEST(PeerAddress, oneEndpointIsOneAddressHoweverItIsWritten) {
    const Bytes mapped{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 1, 2, 3, 4};
    const ByteView bytes(mapped);
    std::unordered_set<PeerAddress> addresses{
        PeerAddress::fromIPv4(bytes.last<4>(), 80), PeerAddress::fromIPv6(bytes.first<16>(), 80),
        PeerAddress::fromHost("::ffff:1.2.3.4", 80), *PeerAddress::parse("[::FFFF:102:304]:80")};
    EXPECT_EQ(addresses.size(), 1U);
    addresses.insert(PeerAddress::fromHost("1.2.3.4", 81));
    EXPECT_EQ(addresses.size(), 2U);
    EXPECT_EQ(PeerAddress::fromHost("fe80:0::1%eth0", 1).host, "fe80::1%eth0");
    EXPECT_EQ(PeerAddress::fromHost("fe80::1%\x1b[2J", 1).host, "fe80::1");
    EXPECT_EQ(PeerAddress::fromHost("2a00:0::1%eth0", 1).host, "2a00::1");
}

TEST(PeerAddress, usabilityFollowsScopeAndPort) {
    struct Row {
        const char* host;
        bool isPublic, isLSD, isLocal;
    };
    for (const Row& row : {Row{"8.8.8.8", true, false, false}, Row{"2a00::1", true, false, false},
                           Row{"::ffff:8.8.8.8", true, false, false}, Row{"192.168.1.2", false, true, true},
                           Row{"::ffff:10.0.0.1", false, true, true}, Row{"fe80::1", false, true, true},
                           Row{"fd00::1", false, true, true}, Row{"127.0.0.1", false, false, true},
                           Row{"::1", false, false, true}, Row{"100.64.0.1", false, false, false},
                           Row{"224.0.0.1", false, false, false}, Row{"name.example", false, false, false}}) {
        const PeerAddress peer{row.host, 6881};
        EXPECT_EQ(peer.isUsablePublicBTPeer(), row.isPublic) << row.host;
        EXPECT_EQ(peer.isUsableLSDPeer(), row.isLSD) << row.host;
        EXPECT_EQ(peer.isUsableHistory(), row.isPublic || row.isLSD) << row.host;
        EXPECT_EQ(peer.isLocal(), row.isLocal) << row.host;
        const PeerAddress portless{row.host, 0};
        EXPECT_FALSE(portless.isUsableHistory() || portless.isLocal()) << row.host;
    }
}

}  // namespace
}  // namespace skein
