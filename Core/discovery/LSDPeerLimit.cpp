#include "Core/discovery/LSDPeerLimit.h"

#include <algorithm>

namespace skein {

bool LSDPeerLimit::admit(const PeerAddress& peer, Clock::TimePoint now) {
    while (!admitted_.empty() && now - admitted_.front().when >= window) admitted_.pop_front();
    if (admitted_.size() >= maxPeers) return false;
    std::size_t ofHost = 0;
    for (const Admitted& earlier : admitted_) {
        if (earlier.peer == peer) return false;
        if (earlier.peer.host == peer.host) ++ofHost;
    }
    if (ofHost >= maxPeersOfHost) return false;
    admitted_.push_back({now, peer});
    return true;
}

}  // namespace skein
