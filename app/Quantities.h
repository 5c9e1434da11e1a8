#pragma once

#include "public/common/ByteCount.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

/// "500K", "2M", "1G" (powers of 1024, either case) or plain bytes; nothing for another text or one too large.
std::optional<std::int64_t> parseByteCount(std::string_view text) noexcept;

/// "2026-01-31 12:00:00 UTC"; seconds since 1970 for a year that has not four digits.
std::string formatDate(std::chrono::sys_seconds date);

}  // namespace skein
