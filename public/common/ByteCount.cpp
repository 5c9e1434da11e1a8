#include "public/common/ByteCount.h"

#include <array>
#include <cstdio>

namespace skein {

std::string formatByteCount(std::int64_t bytes) {
    if (bytes < 1024) return std::to_string(bytes) + " B";
    constexpr std::array units{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    // From this value on "%.1f" would round to 1024.0.
    for (; value >= 1023.95 && unit + 1 < units.size(); ++unit) value /= 1024;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%.1f %s", value, units[unit]);
    return text.data();
}

}  // namespace skein
