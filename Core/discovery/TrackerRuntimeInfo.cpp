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

std::string_view displayNameOf(TrackerRuntimeStatus status) noexcept {
    switch (status) {
        case TrackerRuntimeStatus::idle: return "等待";
        case TrackerRuntimeStatus::announcing: return "请求中";
        case TrackerRuntimeStatus::working: return "正常";
        case TrackerRuntimeStatus::failed: break;
    }
    return "失败";
}

}  // namespace skein
