#pragma once

#include "public/common/Language.h"

#include <cstdint>
#include <string_view>

namespace skein {

/// What users are told while a command runs for a task.
enum class ControlMessage : std::uint8_t { pausing, resuming };

/// The text that is stored with the task and that programs read.
constexpr std::string_view textOf(ControlMessage message) noexcept {
    return message == ControlMessage::pausing ? "正在暂停，请稍候…" : "正在继续，请稍候…";
}
/// The text that users read.
inline std::string_view displayNameOf(ControlMessage message, Language language = interfaceLanguage()) noexcept {
    if (language == Language::chinese) return textOf(message);
    return message == ControlMessage::pausing ? "Pausing, please wait…" : "Resuming, please wait…";
}

}  // namespace skein
