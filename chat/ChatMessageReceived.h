#pragma once

#include "chat/ChatMessage.h"

#include <string>

namespace skein {

/// Published to MsgCenter when a message is new to the chat store: once, however often the server tells it.
struct ChatMessageReceived {
    ChatMessage message;
    std::string record;          ///< its line in the store
    bool isFromHistory = false;  ///< sent while we were away, or long ago
};

}  // namespace skein
