#pragma once

#include "chat/TalkRecord.h"

namespace skein {

/// Published to MsgCenter when a message is new to the chat store: once, however often the server tells it. A message
/// of our own is published when it has gone out, so that the user's other windows show it.
struct ChatMessageReceived {
    TalkRecord message;
    bool isFromHistory = false;  ///< sent while we were away, or long ago
};

}  // namespace skein
