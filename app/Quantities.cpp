#include "app/Quantities.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <system_error>

namespace skein {

std::optional<std::int64_t> parseByteCount(std::string_view text) noexcept {
    constexpr std::string_view units = "kmgtKMGT";
    std::int64_t factor = 1;
    if (!text.empty() && units.find(text.back()) != std::string_view::npos) {
        factor <<= static_cast<int>(10 * (units.find(text.back()) % 4 + 1));
        text.remove_suffix(1);
    }
    std::int64_t count = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (error != std::errc() || end != text.data() + text.size() || text.starts_with('-')) return std::nullopt;
    if (__builtin_mul_overflow(count, factor, &count)) return std::nullopt;
    return count;
}

std::string formatDate(std::chrono::sys_seconds date) {
    constexpr std::chrono::sys_days first = std::chrono::year(1000) / 1 / 1;
    constexpr std::chrono::sys_days last = std::chrono::year(9999) / 12 / 31;
    if (date < first || date >= last) return std::to_string(date.time_since_epoch().count());
    const auto day = std::chrono::floor<std::chrono::days>(date);
    const std::chrono::year_month_day calendar(day);
    const std::chrono::hh_mm_ss clock(date - day);
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02d UTC", static_cast<int>(calendar.year()),
                  static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
    return text.data();
}

}  // namespace skein
