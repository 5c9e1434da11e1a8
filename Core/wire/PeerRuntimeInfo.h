#pragma once

#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerTraits.h"

#include <cstdint>
#include <optional>
#include <string>

namespace skein {

/// One row of the peer list that users see.
struct PeerRuntimeInfo {
    PeerAddress address;
    PeerSource source = PeerSource::incoming;
    PeerDirection direction = PeerDirection::incoming;
    PeerTransport transport = PeerTransport::tcp;
    PeerEncryptionStatus encryption = PeerEncryptionStatus::plaintext;
    std::string clientName;
    std::int64_t downloaded = 0;    ///< bytes of blocks from the peer
    std::int64_t uploaded = 0;      ///< bytes of blocks to the peer
    std::int64_t downloadRate = 0;  ///< bytes a second
    std::int64_t uploadRate = 0;    ///< bytes a second
    double progress = 0;            ///< the fraction of the torrent that the peer has, 0 to 1
    bool isConnected = false;
    bool peerChoking = true;      ///< the peer sends us nothing now
    bool amChoking = true;        ///< we send the peer nothing now
    bool peerInterested = false;  ///< the peer wants something of us
    std::optional<std::string> lastError;
};

}  // namespace skein
