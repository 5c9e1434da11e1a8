#pragma once

#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerTraits.h"
#include "public/common/Clock.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>

namespace skein {

/// How one peer of one torrent did so far.
struct PeerHistoryEntry {
    std::string host;
    std::uint16_t port = 0;
    PeerSource source = PeerSource::history;
    std::int64_t successCount = 0;
    std::int64_t failureCount = 0;
    // To the millisecond, which is what is stored.
    std::optional<Clock::WallTime> lastSuccessAt;
    std::optional<Clock::WallTime> lastFailureAt;

    PeerAddress address() const { return {host, port}; }
    bool hasOnlyFailed() const noexcept { return successCount == 0; }
    /// Nothing sorts before every date.
    std::optional<Clock::WallTime> lastActiveAt() const { return std::max(lastSuccessAt, lastFailureAt); }

    friend bool operator==(const PeerHistoryEntry&, const PeerHistoryEntry&) = default;
};

}  // namespace skein
