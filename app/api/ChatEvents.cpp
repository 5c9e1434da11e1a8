#include "app/api/ChatEvents.h"

#include "app/api/APIEvent.h"

#include <boost/json/serialize.hpp>

namespace skein {

namespace {

template <class Message>
Subscription passOn(MsgCenter& center, const Strand& strand) {
    return center.subscribe<Message>(strand, [&center](const Message& message) {
        center.publish(APIEvent{std::make_shared<const std::string>(boost::json::serialize(eventOf(message)))});
    });
}

}  // namespace

boost::json::object eventOf(const ChatMessageReceived& received) {
    const ChatMessage& message = received.message;
    return {{"type", "chat"},
            {"from", message.from},
            {"to", message.to},
            {"isGroup", message.isGroup},
            {"text", message.text},
            {"time", static_cast<double>(message.sentAt()) / 1000},
            {"isFromHistory", received.isFromHistory}};
}

boost::json::object eventOf(const ChatStatusChanged& changed) {
    return {{"type", "chatStatus"}, {"status", textOf(changed.status)}, {"message", changed.text}};
}

ChatEvents::ChatEvents(MsgCenter& center, const Strand& strand) {
    subscriptions_.push_back(passOn<ChatMessageReceived>(center, strand));
    subscriptions_.push_back(passOn<ChatStatusChanged>(center, strand));
}

}  // namespace skein
