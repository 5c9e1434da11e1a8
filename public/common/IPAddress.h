#pragma once

#include "public/common/Bytes.h"

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

/// Who can reach an address.
enum class AddressScope : std::uint8_t {
    global,      ///< everyone
    loopback,    ///< this machine
    privateUse,  ///< one site: RFC 1918, and unique local IPv6 addresses of RFC 4193
    linkLocal,   ///< one link
    multicast,
    unspecified,  ///< 0.0.0.0 and ::
    reserved,     ///< documentation, carrier-grade NAT, benchmarks, service anycast and whatever else is nobody's own
};

/// A literal IPv4 or IPv6 address. An IPv4 address written as IPv6 (::ffff:a.b.c.d) is the IPv4 address.
class IPAddress {
public:
    using V4Bytes = std::array<std::uint8_t, 4>;
    using V6Bytes = std::array<std::uint8_t, 16>;

    explicit IPAddress(const V4Bytes& bytes) noexcept;
    explicit IPAddress(const V6Bytes& bytes) noexcept;
    /// Dotted IPv4 or any form of IPv6, without brackets; the zone of an IPv6 address ("%eth0") is dropped.
    static std::optional<IPAddress> parse(std::string_view text);

    bool isIPv4() const noexcept { return isIPv4_; }
    /// 4 or 16 bytes in network order.
    ByteView bytes() const noexcept { return ByteView(bytes_).first(isIPv4_ ? 4 : 16); }
    AddressScope scope() const noexcept;
    /// Dotted, or the canonical text of RFC 5952.
    std::string text() const;

    friend auto operator<=>(const IPAddress&, const IPAddress&) = default;

private:
    V6Bytes bytes_{};
    bool isIPv4_ = false;
};

/// The canonical text (RFC 5952) of 16 address bytes; an IPv4-mapped address keeps its IPv6 form "::ffff:1.2.3.4".
std::string ipv6Text(const IPAddress::V6Bytes& bytes);

}  // namespace skein
