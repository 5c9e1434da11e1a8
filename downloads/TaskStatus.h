#pragma once

#include "public/common/Language.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace skein {

enum class TaskStatus : std::uint8_t { fetchingMetadata, downloading, paused, seeding, completed, error };

/// The text that is saved and that programs read.
std::string_view textOf(TaskStatus status) noexcept;
/// The text that users read.
std::string_view localizedName(TaskStatus status, Language language = interfaceLanguage()) noexcept;
/// From `textOf`, or from the Chinese name, which lists of long ago held.
std::optional<TaskStatus> taskStatusFrom(std::string_view text) noexcept;

}  // namespace skein
