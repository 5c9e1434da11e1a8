#include "app/api/ChatJSON.h"

#include "chat/ChatMedia.h"

#include <algorithm>
#include <cmath>

namespace skein {

namespace json = boost::json;

json::object asJSON(const TalkRecord& message) {
    json::object object{{"id", message.id},           {"from", message.from}, {"to", message.to},
                        {"isGroup", message.isGroup}, {"text", message.text}, {"time", secondsOf(message.sentAt)}};
    const auto media = ChatMedia::read(message.mediaJson());
    if (media) {
        json::object fields{{"kind", media->kind}, {"name", media->name}, {"size", nullptr}, {"url", media->url}};
        if (media->size) fields["size"] = *media->size;
        object["media"] = std::move(fields);
    }
    return object;
}

json::object asJSON(const TalkConversation& conversation) {
    return {{"id", conversation.partner.id},
            {"isGroup", conversation.partner.isGroup},
            {"lastFrom", conversation.last.from},
            {"lastText", conversation.last.text},
            {"lastTime", secondsOf(conversation.last.sentAt)},
            {"unread", conversation.unread}};
}

double secondsOf(std::int64_t milliseconds) { return static_cast<double>(milliseconds) / 1000; }

std::int64_t millisecondsOf(double seconds) {
    constexpr double lastSecondOf9999 = 253'402'300'799.0;
    return std::llround(std::clamp(seconds, 0.0, lastSecondOf9999) * 1000);
}

}  // namespace skein
