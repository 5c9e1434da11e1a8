#pragma once

#include "Core/wire/PeerTraits.h"
#include "public/common/Bytes.h"
#include "public/common/IPAddress.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace skein {

/// Where a peer is reached: an IPv4 or IPv6 address, or a host name, and a port.
///
/// Two addresses are equal when their texts and ports are: build them by the functions here, which write one
/// address in one way (an IPv4-mapped IPv6 address becomes the IPv4 address).
struct PeerAddress {
    std::string host;  ///< without brackets
    std::uint16_t port = 0;

    static PeerAddress from(const IPAddress& address, std::uint16_t port) { return {address.text(), port}; }
    static PeerAddress fromIPv4(std::span<const std::uint8_t, 4> bytes, std::uint16_t port);
    static PeerAddress fromIPv6(std::span<const std::uint8_t, 16> bytes, std::uint16_t port);
    /// `host` as others wrote it (a tracker's "ip", a `getpeername` text): literals get their canonical text.
    static PeerAddress fromHost(std::string_view host, std::uint16_t port);
    /// "1.2.3.4:6881", "[2001:db8::1]:6881", "name.example:6881"; nothing for a host or port that cannot be.
    static std::optional<PeerAddress> parse(std::string_view text);
    /// The canonical text (RFC 5952) of 16 address bytes.
    static std::string ipv6Host(std::span<const std::uint8_t, 16> from);

    PeerAddressFamily addressFamily() const;
    /// The literal address; nothing when the host is a name.
    std::optional<IPAddress> literal() const { return IPAddress::parse(host); }
    /// May be dialled when it comes from a tracker, the DHT or another peer: globally routable.
    bool isUsablePublicBTPeer() const;
    /// May be dialled when it comes from local discovery: private, link-local or unique local.
    bool isUsableLSDPeer() const;
    /// May be kept in the history: either of the two.
    bool isUsableHistory() const { return isUsablePublicBTPeer() || isUsableLSDPeer(); }
    /// On this machine or this site: what a public source may name only where the user allows it.
    bool isLocal() const;

    /// "1.2.3.4:6881" or "[2001:db8::1]:6881".
    std::string description() const;

    friend bool operator==(const PeerAddress&, const PeerAddress&) = default;
    friend auto operator<=>(const PeerAddress&, const PeerAddress&) = default;
};

}  // namespace skein

template <>
struct std::hash<skein::PeerAddress> {
    std::size_t operator()(const skein::PeerAddress& address) const noexcept {
        // The multiplier spreads neighbouring ports of one host over the whole word (2^64 / golden ratio).
        return std::hash<std::string>{}(address.host) ^ (address.port * std::size_t{0x9E3779B97F4A7C15});
    }
};
