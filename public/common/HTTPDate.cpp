#include "public/common/HTTPDate.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <limits>
#include <string>
#include <system_error>

namespace skein {

namespace {

constexpr std::int64_t mostSeconds = std::numeric_limits<std::int32_t>::max();

}  // namespace

std::optional<std::chrono::sys_seconds> httpDateFrom(std::string_view text) {
    // Every form begins with the day of the week; the library would take a bare number for a date, too.
    if (text.empty() || text.front() < 'A' || text.front() > 'Z') return std::nullopt;
    const std::time_t seconds = ::curl_getdate(std::string(text).c_str(), nullptr);
    if (seconds < 0) return std::nullopt;
    return std::chrono::sys_seconds(std::chrono::seconds(seconds));
}

std::optional<std::chrono::seconds> retryAfterIn(std::string_view header, Clock::WallTime now) {
    std::int64_t seconds = 0;
    const char* const end = header.data() + header.size();
    const auto [last, error] = std::from_chars(header.data(), end, seconds);
    if (last == end && last != header.data() && !header.starts_with('-'))
        return std::chrono::seconds(error == std::errc() ? std::min(seconds, mostSeconds) : mostSeconds);
    const auto date = httpDateFrom(header);
    if (!date) return std::nullopt;
    return std::max(std::chrono::ceil<std::chrono::seconds>(*date - now), std::chrono::seconds::zero());
}

}  // namespace skein
