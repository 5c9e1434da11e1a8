#pragma once

#include "chat/ClientStatus.h"

#include <cstdint>
#include <optional>
#include <string>

namespace skein {

/// What the interface shows of the chat client.
struct ChatState {
    bool active = false;  ///< signed in: requests go out
    ClientStatus status = ClientStatus::disconnected;
    std::string account;                     ///< the user of the last login, as the account has the name
    std::string user;                        ///< whom the server knows us as; empty before the first login
    std::int64_t newChatCount = 0;           ///< unread chats at the last login
    std::string cacheList;                   ///< the last friend or group list, as JSON
    std::optional<std::string> latestImage;  ///< the media of the latest message that had some, as JSON
};

}  // namespace skein
