#pragma once

#include "chat/TalkRecord.h"

#include <cstdint>

namespace skein {

/// What was said with one user or in one group, in short. Plain data; any thread.
struct TalkConversation {
    TalkPartner partner;
    std::int64_t unread = 0;  ///< messages of others since the last `TalkData::markRead`
    TalkRecord last;          ///< its text is cut at TalkData::previewCharacters
};

}  // namespace skein
