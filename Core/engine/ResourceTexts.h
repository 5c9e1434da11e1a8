#pragma once

#include "Core/engine/ResourceRecords.h"
#include "Core/wire/PeerTraits.h"
#include "public/common/Language.h"

#include <array>
#include <optional>
#include <string_view>

namespace skein {

inline constexpr std::array<UploadMode, 3> allUploadModes{UploadMode::paid, UploadMode::free, UploadMode::disabled};

// The texts that are sent, stored and logged.

constexpr std::string_view textOf(ResourceStatus status) noexcept {
    return detail::nameIn<ResourceStatus, 4>({"offline", "leeching", "leeching_seeding", "seeding"}, status);
}
constexpr std::string_view textOf(UploadMode mode) noexcept {
    return detail::nameIn<UploadMode, 3>({"paid", "free", "disabled"}, mode);
}

/// The mode that is stored as `text`; nothing for another text.
constexpr std::optional<UploadMode> uploadModeFrom(std::string_view text) noexcept {
    for (const UploadMode mode : allUploadModes)
        if (textOf(mode) == text) return mode;
    return std::nullopt;
}

/// The label that users see.
inline std::string_view displayNameOf(UploadMode mode, Language language = interfaceLanguage()) noexcept {
    return language == Language::chinese
               ? detail::nameIn<UploadMode, 3>({"上传赚币", "公益做种", "仅下载"}, mode)
               : detail::nameIn<UploadMode, 3>({"Upload and earn credit", "Seed for free", "Download only"}, mode);
}

}  // namespace skein
