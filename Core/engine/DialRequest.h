#pragma once

#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerTraits.h"

namespace skein {

/// A peer that may be dialled, and how.
struct DialRequest {
    PeerAddress address;
    PeerSource source = PeerSource::publicTracker;
    bool isNamedByUser = false;  ///< dialled whatever the cooldown and the address rules say
};

}  // namespace skein
