#pragma once

#include "chat/ClientStatus.h"

#include <cstdint>
#include <string>

namespace skein {

/// Published to MsgCenter when the chat client's status changes, and for every answered login.
struct ChatStatusChanged {
    ClientStatus status = ClientStatus::disconnected;
    std::string text;               ///< "status:success" or "status:fail" for an answered login, else empty
    std::int64_t newChatCount = 0;  ///< unread chats at the server, with a successful login
};

}  // namespace skein
