#include "Core/discovery/TrackerRuntimeInfo.h"

namespace skein {

std::string_view textOf(TrackerRuntimeStatus status) noexcept {
    switch (status) {
        case TrackerRuntimeStatus::idle: return "idle";
        case TrackerRuntimeStatus::announcing: return "announcing";
        case TrackerRuntimeStatus::working: return "working";
        case TrackerRuntimeStatus::failed: break;
    }
    return "failed";
}

std::string_view displayNameOf(TrackerRuntimeStatus status, Language language) noexcept {
    const bool isChinese = language == Language::chinese;
    switch (status) {
        case TrackerRuntimeStatus::idle: return isChinese ? "等待" : "Idle";
        case TrackerRuntimeStatus::announcing: return isChinese ? "请求中" : "Announcing";
        case TrackerRuntimeStatus::working: return isChinese ? "正常" : "Working";
        case TrackerRuntimeStatus::failed: break;
    }
    return isChinese ? "失败" : "Failed";
}

}  // namespace skein
