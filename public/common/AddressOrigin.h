#pragma once

#include "public/common/IPAddress.h"

#include <cstdint>

namespace skein {

/// Who named the address that a request goes to.
enum class AddressOrigin : std::uint8_t {
    userNamed,    ///< the user, on the command line, in the settings or to the local API
    fromOutside,  ///< a torrent, a magnet link, a tracker or another server: it may not lead into the user's network
};

/// How far into the user's own network an address leads. What is reserved may be the provider's or the site's own.
enum class AddressDepth : std::uint8_t { outside, site, machine };

constexpr AddressDepth depthOf(AddressScope scope) noexcept {
    switch (scope) {
        case AddressScope::global: return AddressDepth::outside;
        case AddressScope::loopback:
        case AddressScope::unspecified: return AddressDepth::machine;  // 0.0.0.0 reaches this machine too
        case AddressScope::privateUse:
        case AddressScope::linkLocal:
        case AddressScope::multicast:
        case AddressScope::reserved: break;
    }
    return AddressDepth::site;
}

/// The deepest address to which a request of that origin may go.
constexpr AddressDepth deepestFor(AddressOrigin origin) noexcept {
    return origin == AddressOrigin::userNamed ? AddressDepth::machine : AddressDepth::outside;
}

}  // namespace skein
