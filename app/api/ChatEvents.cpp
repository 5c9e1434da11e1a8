#include "app/api/ChatEvents.h"

#include "app/api/APIEvent.h"
#include "app/api/ChatJSON.h"
#include "public/common/PlainJSON.h"

namespace skein {

namespace {

template <class Message>
Subscription passOn(MsgCenter& center, const Strand& strand) {
    return center.subscribe<Message>(strand, [&center](const Message& message) {
        center.publish(APIEvent{std::make_shared<const std::string>(plainJSON(eventOf(message)))});
    });
}

}  // namespace

boost::json::object eventOf(const ChatMessageReceived& received) {
    boost::json::object event = asJSON(received.message);
    event["type"] = "chat";
    event["isFromHistory"] = received.isFromHistory;
    return event;
}

boost::json::object eventOf(const ChatConversationRead& read) {
    return {{"type", "chatRead"},
            {"id", read.partner.id},
            {"isGroup", read.partner.isGroup},
            {"time", secondsOf(read.until)}};
}

boost::json::object eventOf(const ChatStatusChanged& changed) {
    return {{"type", "chatStatus"}, {"status", textOf(changed.status)}, {"message", changed.text}};
}

ChatEvents::ChatEvents(MsgCenter& center, const Strand& strand) {
    subscriptions_.push_back(passOn<ChatMessageReceived>(center, strand));
    subscriptions_.push_back(passOn<ChatConversationRead>(center, strand));
    subscriptions_.push_back(passOn<ChatStatusChanged>(center, strand));
}

}  // namespace skein
