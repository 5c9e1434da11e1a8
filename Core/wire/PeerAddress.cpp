#include "Core/wire/PeerAddress.h"

#include <algorithm>
#include <charconv>

namespace skein {

namespace {

/// RFC 1035: a name has at most 255 bytes.
constexpr std::size_t longestHost = 255;

std::optional<std::uint16_t> parsePort(std::string_view text) {
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port == 0) return std::nullopt;
    return port;
}

bool isNameCharacter(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte > ' ' && byte != 0x7F && std::string_view("/\\@?#[]:").find(character) == std::string_view::npos;
}

/// The zone of an IPv6 address, "%" included; empty when there is none that could be an interface's name.
std::string_view zoneOf(std::string_view host) {
    constexpr std::size_t longest = 32;
    const std::size_t percent = std::min(host.find('%'), host.size());
    const std::string_view zone = host.substr(percent);
    const auto isNamed = [](char character) {
        const bool isLetter = (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
        return isLetter || (character >= '0' && character <= '9') || character == '.' || character == '_' ||
               character == '-';
    };
    if (zone.size() < 2 || zone.size() > longest || !std::all_of(zone.begin() + 1, zone.end(), isNamed)) return {};
    return zone;
}

template <std::size_t count>
std::array<std::uint8_t, count> copyOf(std::span<const std::uint8_t, count> bytes) {
    std::array<std::uint8_t, count> copy{};
    std::copy(bytes.begin(), bytes.end(), copy.begin());
    return copy;
}

std::optional<AddressScope> scopeOf(const PeerAddress& peer) {
    const auto address = peer.literal();
    if (!address || peer.port == 0) return std::nullopt;
    return address->scope();
}

}  // namespace

PeerAddress PeerAddress::fromIPv4(std::span<const std::uint8_t, 4> bytes, std::uint16_t port) {
    return from(IPAddress(copyOf(bytes)), port);
}

PeerAddress PeerAddress::fromIPv6(std::span<const std::uint8_t, 16> bytes, std::uint16_t port) {
    return from(IPAddress(copyOf(bytes)), port);
}

PeerAddress PeerAddress::fromHost(std::string_view host, std::uint16_t port) {
    const auto address = IPAddress::parse(host);
    if (!address) return {std::string(host), port};
    PeerAddress peer = from(*address, port);
    // A link-local address is one of several interfaces', and cannot be dialled without the zone that says which.
    if (address->scope() == AddressScope::linkLocal) peer.host += zoneOf(host);
    return peer;
}

std::optional<PeerAddress> PeerAddress::parse(std::string_view text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return std::nullopt;
    const auto port = parsePort(text.substr(colon + 1));
    std::string_view host = text.substr(0, colon);
    if (!port || host.empty() || host.size() > longestHost) return std::nullopt;
    if (host.front() == '[') {
        if (host.size() < 2 || host.back() != ']') return std::nullopt;
        host = host.substr(1, host.size() - 2);
        const auto address = IPAddress::parse(host);
        if (!address || host.find(':') == std::string_view::npos) return std::nullopt;
        return fromHost(host, *port);
    }
    if (!std::all_of(host.begin(), host.end(), isNameCharacter)) return std::nullopt;
    return fromHost(host, *port);
}

std::string PeerAddress::ipv6Host(std::span<const std::uint8_t, 16> from) { return ipv6Text(copyOf(from)); }

PeerAddressFamily PeerAddress::addressFamily() const {
    if (!literal()) return PeerAddressFamily::hostname;
    return host.find(':') == std::string::npos ? PeerAddressFamily::ipv4 : PeerAddressFamily::ipv6;
}

bool PeerAddress::isUsablePublicBTPeer() const { return scopeOf(*this) == AddressScope::global; }

bool PeerAddress::isUsableLSDPeer() const {
    const auto scope = scopeOf(*this);
    return scope == AddressScope::privateUse || scope == AddressScope::linkLocal;
}

bool PeerAddress::isLocal() const { return isUsableLSDPeer() || scopeOf(*this) == AddressScope::loopback; }

std::string PeerAddress::description() const {
    const std::string portText = std::to_string(port);
    if (host.find(':') == std::string::npos) return host + ":" + portText;
    return "[" + host + "]:" + portText;
}

}  // namespace skein
