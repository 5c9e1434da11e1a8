#pragma once

#include <cstdint>
#include <string>

namespace skein {

/// Who a peer is to the resource service, and what was agreed on with it.
struct ServicePeer {
    std::string userID;
    bool hasFreeAccounting = false;  ///< what is sent to it is not charged to it
    std::int64_t speedLimit = 0;     ///< bytes a second, 0 = none
    bool suppressesRelay = false;    ///< is not tried over the relay
    bool isLeecher = false;          ///< dialled to serve it, not to be served

    friend bool operator==(const ServicePeer&, const ServicePeer&) = default;
};

}  // namespace skein
