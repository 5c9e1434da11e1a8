#pragma once

#include "Core/engine/ResourceRecords.h"
#include "Core/wire/PeerAddress.h"

#include <string>
#include <vector>

namespace skein {

/// What of a session's options may change while it runs.
struct SessionTuning {
    UploadMode uploadMode = UploadMode::paid;
    std::vector<std::string> cacheSites;  ///< asked from the next search for metadata on
    std::vector<std::string> fallbackTrackers;
    std::vector<PeerAddress> manualLANPeers;
    bool scansLAN = false;
};

}  // namespace skein
