#include "chat/ClientStatus.h"

namespace skein {

std::string_view textOf(ClientStatus status) noexcept {
    switch (status) {
        case ClientStatus::disconnected: break;
        case ClientStatus::connecting: return "connecting";
        case ClientStatus::connected: return "connected";
        case ClientStatus::refused: return "refused";
        case ClientStatus::loggedIn: return "loggedIn";
    }
    return "disconnected";
}

}  // namespace skein
