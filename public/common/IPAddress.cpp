#include "public/common/IPAddress.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>

namespace skein {

namespace {

constexpr std::array<std::uint8_t, 12> mappedPrefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

/// The first `length` bits of an address block, in the first bytes of `prefix`.
struct Block {
    std::array<std::uint8_t, 16> prefix;
    unsigned length;
    AddressScope scope;
};

/// All of the IANA IPv4 special-purpose address registry, and multicast.
constexpr std::array v4Blocks{
    Block{{0, 0, 0, 0}, 32, AddressScope::unspecified},
    Block{{0}, 8, AddressScope::reserved},  // this network
    Block{{10}, 8, AddressScope::privateUse},
    Block{{100, 64}, 10, AddressScope::reserved},  // carrier-grade NAT
    Block{{127}, 8, AddressScope::loopback},
    Block{{169, 254}, 16, AddressScope::linkLocal},
    Block{{172, 16}, 12, AddressScope::privateUse},
    Block{{192, 0, 0}, 24, AddressScope::reserved},     // protocol assignments
    Block{{192, 0, 2}, 24, AddressScope::reserved},     // documentation
    Block{{192, 31, 196}, 24, AddressScope::reserved},  // AS112 anycast
    Block{{192, 52, 193}, 24, AddressScope::reserved},  // AMT anycast
    Block{{192, 88, 99}, 24, AddressScope::reserved},   // 6to4 relay anycast
    Block{{192, 168}, 16, AddressScope::privateUse},
    Block{{192, 175, 48}, 24, AddressScope::reserved},  // AS112 anycast
    Block{{198, 18}, 15, AddressScope::reserved},       // benchmarking
    Block{{198, 51, 100}, 24, AddressScope::reserved},  // documentation
    Block{{203, 0, 113}, 24, AddressScope::reserved},   // documentation
    Block{{224}, 4, AddressScope::multicast},
    Block{{240}, 4, AddressScope::reserved},  // future use, and the broadcast address
};

/// The IANA IPv6 special-purpose address registry; what carries an IPv4 address is judged by that one instead.
constexpr std::array v6Blocks{
    Block{{}, 128, AddressScope::unspecified},
    Block{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 128, AddressScope::loopback},
    Block{{0xFC}, 7, AddressScope::privateUse},  // unique local
    Block{{0xFE, 0x80}, 10, AddressScope::linkLocal},
    Block{{0xFF}, 8, AddressScope::multicast},
    Block{{0x20, 0x01, 0x00}, 23, AddressScope::reserved},                    // protocol assignments, Teredo
    Block{{0x20, 0x01, 0x0D, 0xB8}, 32, AddressScope::reserved},              // documentation
    Block{{0x26, 0x20, 0x00, 0x4F, 0x80, 0x00}, 48, AddressScope::reserved},  // AS112 anycast
    Block{{0x3F, 0xFF, 0x00}, 20, AddressScope::reserved},                    // documentation
    Block{{0x20}, 3, AddressScope::global},                                   // all global unicast there is
};

bool startsWith(ByteView address, ByteView prefix, unsigned bits) noexcept {
    const std::size_t whole = bits / 8;
    if (!std::equal(prefix.begin(), prefix.begin() + static_cast<std::ptrdiff_t>(whole), address.begin())) return false;
    const unsigned rest = bits % 8;
    return rest == 0 || (address[whole] ^ prefix[whole]) >> (8 - rest) == 0;
}

template <std::size_t count>
AddressScope lookUp(const std::array<Block, count>& blocks, ByteView address, AddressScope otherwise) noexcept {
    const auto block = std::find_if(blocks.begin(), blocks.end(), [&](const Block& candidate) {
        return startsWith(address, candidate.prefix, candidate.length);
    });
    return block == blocks.end() ? otherwise : block->scope;
}

AddressScope v4Scope(ByteView address) noexcept { return lookUp(v4Blocks, address, AddressScope::global); }

AddressScope v6Scope(ByteView address) noexcept {
    constexpr std::array<std::uint8_t, 12> nat64{0x00, 0x64, 0xFF, 0x9B};  // 64:ff9b::/96, RFC 6052
    constexpr std::array<std::uint8_t, 2> sixToFour{0x20, 0x02};           // 2002::/16, RFC 3056
    if (startsWith(address, nat64, 96)) return v4Scope(address.subspan(12, 4));
    if (startsWith(address, sixToFour, 16)) return v4Scope(address.subspan(2, 4));
    return lookUp(v6Blocks, address, AddressScope::reserved);
}

void appendNumber(std::string& text, unsigned number, int base) {
    std::array<char, 8> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number, base).ptr;
    text.append(digits.data(), end);
}

std::string v4Text(ByteView bytes) {
    std::string text;
    for (std::size_t i = 0; i < 4; ++i) {
        if (i > 0) text += '.';
        appendNumber(text, bytes[i], 10);
    }
    return text;
}

/// The longest run of two or more zero groups, the first of several: RFC 5952, 4.2.
struct ZeroRun {
    std::size_t start = 8;
    std::size_t length = 1;
};

ZeroRun longestZeroRun(const std::array<unsigned, 8>& groups) noexcept {
    ZeroRun longest;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        std::size_t length = 0;
        while (i + length < groups.size() && groups[i + length] == 0) ++length;
        if (length > longest.length) longest = {i, length};
        i += length;
    }
    return longest;
}

}  // namespace

IPAddress::IPAddress(const V4Bytes& bytes) noexcept : isIPv4_(true) {
    std::copy(bytes.begin(), bytes.end(), bytes_.begin());
}

IPAddress::IPAddress(const V6Bytes& bytes) noexcept : isIPv4_(startsWith(bytes, mappedPrefix, 96)) {
    std::copy(bytes.begin() + (isIPv4_ ? 12 : 0), bytes.end(), bytes_.begin());
}

std::optional<IPAddress> IPAddress::parse(std::string_view text) {
    constexpr std::size_t longest = INET6_ADDRSTRLEN;
    const bool isIPv6 = text.find(':') != std::string_view::npos;
    if (isIPv6) text = text.substr(0, text.find('%'));
    if (text.size() >= longest || text.find('\0') != std::string_view::npos) return std::nullopt;
    const std::string terminated(text);
    if (isIPv6) {
        V6Bytes bytes{};
        if (inet_pton(AF_INET6, terminated.c_str(), bytes.data()) != 1) return std::nullopt;
        return IPAddress(bytes);
    }
    V4Bytes bytes{};
    if (inet_pton(AF_INET, terminated.c_str(), bytes.data()) != 1) return std::nullopt;
    return IPAddress(bytes);
}

AddressScope IPAddress::scope() const noexcept { return isIPv4_ ? v4Scope(bytes()) : v6Scope(bytes()); }

std::string IPAddress::text() const { return isIPv4_ ? v4Text(bytes()) : ipv6Text(bytes_); }

std::string ipv6Text(const IPAddress::V6Bytes& bytes) {
    if (startsWith(bytes, mappedPrefix, 96)) return "::ffff:" + v4Text(ByteView(bytes).subspan(12));
    std::array<unsigned, 8> groups{};
    for (std::size_t i = 0; i < groups.size(); ++i) groups[i] = bytes[2 * i] * 256U + bytes[2 * i + 1];
    const ZeroRun zeros = longestZeroRun(groups);
    std::string text;
    for (std::size_t i = 0; i < groups.size(); ++i) {
        if (i == zeros.start) {
            text += "::";
            i += zeros.length - 1;
            continue;
        }
        if (!text.empty() && text.back() != ':') text += ':';
        appendNumber(text, groups[i], 16);
    }
    return text;
}

}  // namespace skein
