#pragma once

#include <cstdint>
#include <string>

namespace skein {

/// One message as the chat store keeps it. Plain data; any thread.
struct TalkRecord {
    std::int64_t id = 0;  ///< grows with each record that is stored
    std::string from;
    std::string to;
    bool isGroup = false;
    std::int64_t sentAt = 0;  ///< milliseconds since 1970
    std::string text;
    std::string record;  ///< ChatMessage::recordLine()
};

/// Whom one talks with: a user or a group.
struct TalkPartner {
    std::string id;
    bool isGroup = false;
    std::int64_t unread = 0;  ///< messages of others since the last `markRead`

    friend bool operator==(const TalkPartner&, const TalkPartner&) = default;
};

}  // namespace skein
