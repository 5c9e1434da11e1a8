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
};

}  // namespace skein
