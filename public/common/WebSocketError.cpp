#include "public/common/WebSocketError.h"

namespace skein {

std::string_view textOf(WebSocketError error) noexcept {
    switch (error) {
        case WebSocketError::invalidURL: return "Invalid websocket URL: ";
        case WebSocketError::cannotConnect: return "Cannot connect: ";
        case WebSocketError::insecure: return "Insecure connection refused: ";
        case WebSocketError::refused: return "The server refused the websocket: ";
        case WebSocketError::timeout: return "Timed out";
        case WebSocketError::closed: return "Connection closed: ";
    }
    return "";
}

}  // namespace skein
