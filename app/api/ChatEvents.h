#pragma once

#include "chat/ChatConversationRead.h"
#include "chat/ChatMessageReceived.h"
#include "chat/ChatStatusChanged.h"
#include "public/common/MsgCenter/MsgCenter.h"
#include "public/common/TaskGroup.h"

#include <boost/json/object.hpp>

#include <vector>

namespace skein {

/// As the event stream and `chat listen --json` tell it (docs/api.md).
boost::json::object eventOf(const ChatMessageReceived& received);
boost::json::object eventOf(const ChatConversationRead& read);
boost::json::object eventOf(const ChatStatusChanged& changed);

/// Tells the listeners of the event stream what happens in the chat, while it lives. Owner: the daemon. Thread: any.
class ChatEvents {
public:
    /// `center` outlives it.
    ChatEvents(MsgCenter& center, const Strand& strand);

private:
    std::vector<Subscription> subscriptions_;
};

}  // namespace skein
