#pragma once

#include "Core/discovery/DHTEndpoint.h"
#include "Core/discovery/NodeID.h"
#include "public/common/Bytes.h"
#include "public/common/IPAddress.h"

#include <chrono>
#include <cstdint>
#include <optional>

namespace skein {

/// One node that we know.
struct DHTNodeInfo {
    using TimePoint = std::chrono::steady_clock::time_point;
    /// Of a node that others named and that has not answered us yet: so it is the first to go.
    static constexpr TimePoint neverSeen = TimePoint::min();

    NodeID id{};
    IPAddress host;
    std::uint16_t port = 0;
    TimePoint lastSeen = neverSeen;
    std::optional<Bytes> lastToken;  ///< from its last answer to get_peers

    DHTEndpoint endpoint() const noexcept { return {host, port}; }
};

}  // namespace skein
