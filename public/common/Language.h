#pragma once

#include <cstdint>

namespace skein {

/// The languages in which names are shown.
enum class Language : std::uint8_t { english, chinese };

/// The user's: Chinese when LC_ALL, LC_MESSAGES or LANG (the first that is set) begins with "zh". Thread: any.
Language interfaceLanguage() noexcept;

}  // namespace skein
