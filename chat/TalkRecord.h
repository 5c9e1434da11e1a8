#pragma once

#include "chat/ChatMessage.h"

#include <cstdint>
#include <string>

namespace skein {

/// Where a message stands in a conversation: by its time, and among those of one time by its id.
struct TalkPlace {
    std::int64_t sentAt = 0;  ///< milliseconds since 1970
    std::int64_t id = 0;      ///< TalkRecord::id
};

/// One message as the chat store keeps it. Plain data; any thread.
struct TalkRecord {
    std::int64_t id = 0;  ///< grows with each record that is stored; 0: the message is not in the store
    std::string from;
    std::string to;
    bool isGroup = false;
    std::int64_t sentAt = 0;  ///< milliseconds since 1970
    std::string text;
    std::string record;  ///< ChatMessage::recordLine()

    static TalkRecord of(const ChatMessage& message, std::int64_t id) {
        return {id, message.from, message.to, message.isGroup, message.sentAt(), message.text, message.recordLine()};
    }
    /// What came with a media message; empty for others.
    std::string mediaJson() const { return ChatMessage::mediaJsonIn(record); }
};

/// Whom one talks with: a user or a group.
struct TalkPartner {
    std::string id;
    bool isGroup = false;

    friend bool operator==(const TalkPartner&, const TalkPartner&) = default;
};

}  // namespace skein
