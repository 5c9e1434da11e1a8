#pragma once

#include "public/common/Language.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace skein {

/// Who told us of a peer. The first two are peers of the resource service, by how their bytes are accounted.
enum class PeerSource : std::uint8_t {
    skeinServerFree,
    skeinServerPaid,
    publicTracker,
    dht,
    pex,
    history,
    lsd,
    manualLAN,
    incoming,
};

enum class PeerDirection : std::uint8_t { incoming, outgoing };
enum class PeerTransport : std::uint8_t { tcp, utp, relay };
enum class PeerEncryptionStatus : std::uint8_t { plaintext, encrypted, handshakeFailed };
enum class PeerAddressFamily : std::uint8_t { ipv4, ipv6, hostname };

namespace detail {

inline constexpr std::array<std::string_view, 9> peerSourceTexts{
    "skeinServerFree", "skeinServerPaid", "publicTracker", "dht", "pex", "history", "lsd", "manualLAN", "incoming"};

/// `names` holds one text for each enumerator, in order.
template <class Enumeration, std::size_t count>
constexpr std::string_view nameIn(const std::array<std::string_view, count>& names, Enumeration value) noexcept {
    const auto index = static_cast<std::size_t>(value);
    return index < count ? names[index] : std::string_view();
}

}  // namespace detail

// The texts that are stored and logged.

constexpr std::string_view textOf(PeerSource source) noexcept {
    return detail::nameIn(detail::peerSourceTexts, source);
}
constexpr std::string_view textOf(PeerDirection direction) noexcept {
    return detail::nameIn<PeerDirection, 2>({"incoming", "outgoing"}, direction);
}
constexpr std::string_view textOf(PeerTransport transport) noexcept {
    return detail::nameIn<PeerTransport, 3>({"tcp", "utp", "relay"}, transport);
}
constexpr std::string_view textOf(PeerEncryptionStatus status) noexcept {
    return detail::nameIn<PeerEncryptionStatus, 3>({"plaintext", "encrypted", "handshakeFailed"}, status);
}
constexpr std::string_view textOf(PeerAddressFamily family) noexcept {
    return detail::nameIn<PeerAddressFamily, 3>({"ipv4", "ipv6", "hostname"}, family);
}

/// The source that is stored as `text`; nothing for another text.
constexpr std::optional<PeerSource> peerSourceFrom(std::string_view text) noexcept {
    for (std::size_t i = 0; i < detail::peerSourceTexts.size(); ++i)
        if (detail::peerSourceTexts[i] == text) return static_cast<PeerSource>(i);
    return std::nullopt;
}

// The labels that users see.

inline std::string_view displayNameOf(PeerDirection direction, Language language = interfaceLanguage()) noexcept {
    return language == Language::chinese ? detail::nameIn<PeerDirection, 2>({"被动", "主动"}, direction)
                                         : detail::nameIn<PeerDirection, 2>({"Incoming", "Outgoing"}, direction);
}
/// The same in all languages.
constexpr std::string_view displayNameOf(PeerTransport transport) noexcept {
    return detail::nameIn<PeerTransport, 3>({"TCP", "uTP", "Relay"}, transport);
}
inline std::string_view displayNameOf(PeerAddressFamily family, Language language = interfaceLanguage()) noexcept {
    return language == Language::chinese ? detail::nameIn<PeerAddressFamily, 3>({"IPv4", "IPv6", "域名"}, family)
                                         : detail::nameIn<PeerAddressFamily, 3>({"IPv4", "IPv6", "Host name"}, family);
}

}  // namespace skein
