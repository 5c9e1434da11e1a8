#pragma once

#include "public/common/Clock.h"

#include <chrono>
#include <optional>
#include <string_view>

namespace skein {

/// The moment that a date header names, in any of the three forms of RFC 9110, 5.6.7; nothing for what is no date.
std::optional<std::chrono::sys_seconds> httpDateFrom(std::string_view text);

/// How long a Retry-After header asks to wait (RFC 9110, 10.2.3): seconds, or until a date, which may be over (0 s
/// then); nothing for what is neither.
std::optional<std::chrono::seconds> retryAfterIn(std::string_view header, Clock::WallTime now);

}  // namespace skein
