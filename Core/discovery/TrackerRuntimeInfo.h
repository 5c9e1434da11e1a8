#pragma once

#include "public/common/Language.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

enum class TrackerRuntimeStatus : std::uint8_t { idle, announcing, working, failed };
std::string_view textOf(TrackerRuntimeStatus status) noexcept;
/// The label that users see.
std::string_view displayNameOf(TrackerRuntimeStatus status, Language language = interfaceLanguage()) noexcept;

/// One row of the tracker list that users see.
struct TrackerRuntimeInfo {
    using Date = std::chrono::system_clock::time_point;

    std::string id;  ///< of the row: the URL
    std::string url;
    std::string scheme;
    TrackerRuntimeStatus status = TrackerRuntimeStatus::idle;
    std::int64_t peersFound = 0;
    std::int64_t seeders = 0;
    std::int64_t leechers = 0;
    std::optional<std::int64_t> interval;  ///< seconds
    std::int64_t failureCount = 0;
    std::optional<Date> lastAnnounceAt;  ///< that succeeded
    std::optional<Date> nextAnnounceAt;
    std::optional<std::string> lastError;

    friend bool operator==(const TrackerRuntimeInfo&, const TrackerRuntimeInfo&) = default;
};

}  // namespace skein
