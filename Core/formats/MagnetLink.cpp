#include "Core/formats/MagnetLink.h"

#include <algorithm>
#include <span>

namespace skein {

PeerID MagnetLink::generatePeerID(Random& random) {
    PeerID id{};
    std::copy(peerIDPrefix.begin(), peerIDPrefix.end(), id.begin());
    random.fill(std::span(id).subspan(peerIDPrefix.size()));
    return id;
}

}  // namespace skein
