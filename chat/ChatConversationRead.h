#pragma once

#include "chat/TalkRecord.h"

#include <cstdint>

namespace skein {

/// Published to MsgCenter when the user has read a conversation, so that every window shows the same count.
struct ChatConversationRead {
    TalkPartner partner;
    std::int64_t until = 0;  ///< milliseconds since 1970: what was sent up to then is read
};

}  // namespace skein
