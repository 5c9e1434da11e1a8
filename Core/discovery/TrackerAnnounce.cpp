#include "Core/discovery/TrackerAnnounce.h"

namespace skein {

std::string_view textOf(TrackerEvent event) noexcept {
    switch (event) {
        case TrackerEvent::started: return "started";
        case TrackerEvent::stopped: return "stopped";
        case TrackerEvent::completed: return "completed";
        case TrackerEvent::empty: break;
    }
    return "";
}

std::uint32_t udpCodeOf(TrackerEvent event) noexcept {
    switch (event) {
        case TrackerEvent::completed: return 1;
        case TrackerEvent::started: return 2;
        case TrackerEvent::stopped: return 3;
        case TrackerEvent::empty: break;
    }
    return 0;
}

}  // namespace skein
