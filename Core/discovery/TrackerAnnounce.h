#pragma once

#include "Core/wire/PeerAddress.h"
#include "public/common/AddressOrigin.h"
#include "public/common/SHA1.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// A torrent that lists more would have us flood others with requests: the rest is left out.
inline constexpr std::size_t maxTrackersOfTorrent = 200;

/// What a tracker is told beside the figures; `empty` is the regular announce in between. Source: BEP 3.
enum class TrackerEvent : std::uint8_t { started, stopped, completed, empty };
/// As the HTTP announce has it; empty for `empty`.
std::string_view textOf(TrackerEvent event) noexcept;
/// As the UDP announce has it. Source: BEP 15.
std::uint32_t udpCodeOf(TrackerEvent event) noexcept;

/// What we say about one torrent. A negative count is announced as 0.
struct TrackerAnnounce {
    SHA1Digest infoHash{};
    std::int64_t downloaded = 0;  ///< bytes
    std::int64_t uploaded = 0;    ///< bytes
    std::int64_t left = 0;        ///< bytes that are still missing
    TrackerEvent event = TrackerEvent::empty;
    AddressOrigin origin = AddressOrigin::fromOutside;  ///< of the tracker's URL
};

/// One successful reply.
struct TrackerAnnounceResult {
    std::vector<PeerAddress> peers;
    std::int64_t interval = 0;    ///< seconds, not negative
    std::int64_t complete = 0;    ///< seeders, not negative
    std::int64_t incomplete = 0;  ///< leechers, not negative
    bool isTrackerLocal = false;  ///< the tracker answered from a loopback or private address: so may its peers be
};

/// One tracker's result, success or failure.
struct TrackerAnnounceOutcome {
    std::string tracker;  ///< the URL as given
    std::vector<PeerAddress> peers;
    std::optional<std::int64_t> interval;  ///< seconds
    std::int64_t complete = 0;
    std::int64_t incomplete = 0;
    bool isTrackerLocal = false;
    std::optional<std::string> error;  ///< the failure's description

    bool isSuccess() const noexcept { return !error.has_value(); }
};

}  // namespace skein
