#include "Core/discovery/TrackerError.h"

namespace skein {

std::string_view textOf(TrackerError error) noexcept {
    switch (error) {
        case TrackerError::trackerError: return "Tracker error: ";
        case TrackerError::invalidURL: return "Invalid tracker URL";
        case TrackerError::invalidResponse: return "Invalid tracker response";
        case TrackerError::timeout: break;
    }
    return "Tracker request timed out";
}

}  // namespace skein
