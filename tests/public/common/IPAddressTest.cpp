#include "public/common/IPAddress.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>
#include <string>

namespace skein {
namespace {

TEST(IPAddress, ipv6HasOneCanonicalText) {
    const std::map<const char*, const char*> canonical{
        {"2001:DB8:0:0:0:0:0:1", "2001:db8::1"},
        {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},  // one zero group stays
        {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},           // the longer run goes
        {"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},     // the first of two
        {"1:2:3:4:5:6:0:0", "1:2:3:4:5:6::"},
        {"0:0:0:4:5:6:7:8", "::4:5:6:7:8"},
        {"::", "::"},
        {"::1", "::1"},
        {"::ffff:1.2.3.4", "1.2.3.4"},
        {"fe80::1%eth0", "fe80::1"},
    };
    for (const auto& [text, expected] : canonical) EXPECT_EQ(IPAddress::parse(text).value().text(), expected) << text;
    EXPECT_EQ(ipv6Text({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 1, 2, 3, 4}), "::ffff:1.2.3.4");
}

TEST(IPAddress, refusesWhatIsNoLiteral) {
    for (const char* text : {"", "1.2.3", "1.2.3.256", "1.2.3.4.5", "example.org", "[::1]", "1::2::3", ":", "%eth0",
                             "12345::", "0x7f.0.0.1", "2130706433", "1.2.3.4 "})
        EXPECT_FALSE(IPAddress::parse(text)) << text;
    EXPECT_FALSE(IPAddress::parse(std::string_view("1.2.3.4\0", 8)));
    EXPECT_FALSE(IPAddress::parse(std::string(1000, ':')));
}

TEST(IPAddress, knowsSpecialPurposeBlocksByTheirFirstAndLastAddressesAndTheirNeighbours) {
    using enum AddressScope;
    const std::map<AddressScope, std::string> addresses{
        {unspecified, "0.0.0.0 ::"},
        {reserved,
         "0.0.0.1 0.255.255.255 100.64.0.0 100.127.255.255 192.0.0.0 192.0.0.255 192.0.2.0 192.0.2.255 "
         "192.31.196.0 192.31.196.255 192.52.193.0 192.52.193.255 192.88.99.0 192.88.99.255 192.175.48.0 "
         "192.175.48.255 198.18.0.0 198.19.255.255 198.51.100.0 198.51.100.255 203.0.113.0 203.0.113.255 "
         "240.0.0.0 255.255.255.255 ::2 ::fffe:ffff:ffff 64:ff9b:1:: 64:ff9b:1:ffff:ffff:ffff:ffff:ffff "
         "100:: 100::1:ffff:ffff:ffff:ffff 2001:: 2001:1ff:ffff:ffff:ffff:ffff:ffff:ffff 2001:db8:: "
         "2001:db8:ffff:ffff:ffff:ffff:ffff:ffff 2620:4f:8000:: 2620:4f:8000:ffff:ffff:ffff:ffff:ffff "
         "3fff:: 3fff:fff:ffff:ffff:ffff:ffff:ffff:ffff 4000:: fbff:ffff:ffff:ffff:ffff:ffff:ffff:ffff "
         "fec0:: feff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
        {privateUse,
         "10.0.0.0 10.255.255.255 172.16.0.0 172.31.255.255 192.168.0.0 192.168.255.255 ::ffff:10.0.0.0 "
         "::ffff:10.255.255.255 2002:a00:: 2002:aff:ffff:ffff:ffff:ffff:ffff:ffff fc00:: "
         "fdff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
        {loopback, "127.0.0.0 127.255.255.255 ::1 64:ff9b::7f00:0 64:ff9b::7fff:ffff"},
        {linkLocal, "169.254.0.0 169.254.255.255 fe80:: febf:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
        {multicast, "224.0.0.0 239.255.255.255 ff00:: ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"},
        {global,
         "1.0.0.0 9.255.255.255 11.0.0.0 100.63.255.255 100.128.0.0 126.255.255.255 128.0.0.0 "
         "169.253.255.255 169.255.0.0 172.15.255.255 172.32.0.0 191.255.255.255 192.0.1.0 192.0.3.0 "
         "192.88.98.255 192.167.255.255 192.169.0.0 198.17.255.255 198.20.0.0 198.51.99.255 203.0.112.255 "
         "203.0.114.0 223.255.255.255 ::ffff:8.8.8.8 64:ff9b::808:808 2000:: 2001:200:: 2001:db7:ffff:: "
         "2001:db9:: 2002:808:808::1 2620:4f:7fff:: 2620:4f:8001:: 2a00::1 3ffe:: 3fff:1000::"}};
    for (const auto& [scope, texts] : addresses) {
        std::istringstream list(texts);
        for (std::string text; list >> text;) EXPECT_EQ(IPAddress::parse(text)->scope(), scope) << text;
    }
}

}  // namespace
}  // namespace skein
