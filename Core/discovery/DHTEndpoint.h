#pragma once

#include "public/common/IPAddress.h"

#include <compare>
#include <cstdint>

namespace skein {

/// Where a node, or a peer that a node names, is reached.
struct DHTEndpoint {
    IPAddress host;
    std::uint16_t port = 0;

    /// May be sent to: a single host at a port. Never multicast, broadcast or unspecified; nor link-local, which
    /// leads nowhere without its zone.
    bool isUsable() const noexcept;
    /// On this machine or this site.
    bool isLocal() const noexcept;
    /// Whether what stands at `other` may be believed to be there when the node at this endpoint says so: a node
    /// on the internet has no say about our own machine and site.
    bool mayName(const DHTEndpoint& other) const noexcept;

    friend auto operator<=>(const DHTEndpoint&, const DHTEndpoint&) = default;
};

}  // namespace skein
