#include "chat/ChatInbox.h"

#include "chat/ChatFrame.h"
#include "chat/ChatMessageReceived.h"

#include <utility>

namespace skein {

namespace json = boost::json;

asio::awaitable<void> ChatInbox::takeChat(json::object frame, std::string owner) {
    return takeOne(chatFrame::readChat(frame, owner), owner);
}

asio::awaitable<void> ChatInbox::takeGroupMessage(json::object frame, std::string owner) {
    return takeOne(chatFrame::readGroupMessage(frame), owner);
}

asio::awaitable<void> ChatInbox::takeHistory(json::object frame, std::string owner) {
    return take(messagesIn(frame, owner), owner, true);
}

asio::awaitable<void> ChatInbox::takeGroupHistory(json::object frame, std::string owner) {
    return take(groupMessagesIn(frame), owner, true);
}

std::vector<ChatMessage> ChatInbox::messagesIn(const json::object& history, const std::string& owner) {
    const std::string partner = chatFrame::textOf(history, "to");
    std::vector<ChatMessage> messages;
    for (const json::object& element : chatFrame::listOf(history)) {
        const bool isOurs = !owner.empty() && chatFrame::textOf(element, "from") == owner;
        auto message = chatFrame::readChat(element, isOurs ? partner : owner);
        if (message && !message->to.empty()) messages.push_back(*std::move(message));
    }
    return messages;
}

std::vector<ChatMessage> ChatInbox::groupMessagesIn(const json::object& history) {
    const std::string group = chatFrame::textOf(history, "groupId");
    std::vector<ChatMessage> messages;
    for (const json::object& element : chatFrame::listOf(history))
        if (auto message = chatFrame::readGroupMessage(element, group)) messages.push_back(*std::move(message));
    return messages;
}

asio::awaitable<void> ChatInbox::takeOne(std::optional<ChatMessage> message, std::string owner) {
    std::vector<ChatMessage> messages;
    if (message) {
        if (message->sentAt() == 0) {  // it is new, and its place is at the end
            const auto now = clock_.wallNow().time_since_epoch();
            message->timestamp = std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
        }
        if (!message->mediaJson.empty()) latestImage_ = message->mediaJson;
        messages.push_back(*std::move(message));
    }
    return take(std::move(messages), std::move(owner), false);
}

asio::awaitable<void> ChatInbox::take(std::vector<ChatMessage> messages, std::string owner, bool isFromHistory) {
    if (messages.empty()) co_return;
    std::vector<TalkRecord> fresh;
    fresh.reserve(messages.size());
    for (const ChatMessage& message : messages) fresh.push_back(TalkRecord::of(message, 0));
    try {
        fresh = co_await talk_.append(std::move(owner), std::move(messages));
    } catch (const DatabaseException& error) {
        log_.error("[Chat] messages could not be stored: ", error.what());
    }
    for (TalkRecord& message : fresh) {
        const ChatMessageReceived received{std::move(message), isFromHistory};
        messages_.publish(received);
    }
}

void ChatInbox::takeSent(TalkRecord message) {
    const ChatMessageReceived sent{std::move(message), false};
    messages_.publish(sent);
}

}  // namespace skein
