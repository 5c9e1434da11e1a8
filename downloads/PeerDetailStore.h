#pragma once

#include "Core/wire/PeerRuntimeInfo.h"
#include "downloads/TaskChanges.h"

#include <utility>
#include <vector>

namespace skein {

/// The latest peer rows of one task. They change with every look, so each replacement is told as a change.
/// Thread: the main executor.
class PeerDetailStore {
public:
    using Peers = std::vector<PeerRuntimeInfo>;

    explicit PeerDetailStore(TaskChanges& changes) noexcept : changes_(changes) {}

    const Peers& peers() const noexcept { return peers_; }
    void replace(Peers peers) {
        if (peers.empty() && peers_.empty()) return;
        peers_ = std::move(peers);
        changes_.note(TaskField::peerDetails);
    }

private:
    TaskChanges& changes_;
    Peers peers_;
};

}  // namespace skein
