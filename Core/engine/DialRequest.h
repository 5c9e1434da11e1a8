#pragma once

#include "Core/engine/ServicePeer.h"
#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerTraits.h"

#include <optional>

namespace skein {

/// A peer that may be dialled, and how.
struct DialRequest {
    PeerAddress address;
    PeerSource source = PeerSource::publicTracker;
    bool isNamedByUser = false;              ///< dialled whatever the cooldown and the address rules say
    std::optional<ServicePeer> servicePeer;  ///< of a peer that the resource service listed
    bool isOfOwnSource = false;              ///< of the torrent's own trackers, or of the user's lists

    /// Whether a private torrent may have to do with the peer.
    bool mayServePrivate() const noexcept { return isNamedByUser || servicePeer.has_value() || isOfOwnSource; }
};

}  // namespace skein
