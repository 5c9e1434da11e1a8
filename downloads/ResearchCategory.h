#pragma once

#include "public/common/Language.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace skein {

/// The user's label for a task.
enum class ResearchCategory : std::uint8_t { paper, dataset, book, course, notes, other, uncategorized };

/// The text that is saved and that programs read.
std::string_view textOf(ResearchCategory category) noexcept;
/// The text that users read.
std::string_view localizedName(ResearchCategory category, Language language = interfaceLanguage()) noexcept;
/// From `textOf`; nothing for another text.
std::optional<ResearchCategory> researchCategoryFrom(std::string_view text) noexcept;

}  // namespace skein
