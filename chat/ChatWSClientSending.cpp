#include "chat/ChatFrame.h"
#include "chat/ChatRequests.h"
#include "chat/ChatWSClient.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace json = boost::json;

/// A message of ours is stored before it is sent: a history that brings it back finds it there.
asio::awaitable<TalkRecord> ChatWSClient::storeOwn(std::string to, std::string text, bool isGroup) {
    ChatMessage message;
    message.from = me_;
    message.to = std::move(to);
    message.isGroup = isGroup;
    message.text = std::move(text);
    message.bundId = parts_.terminal.bundId;
    message.appType = parts_.terminal.termType;
    // Two messages of one millisecond are two all the same.
    const auto now = parts_.clock.wallNow().time_since_epoch();
    lastOwnTime_ =
        std::max<std::int64_t>(lastOwnTime_ + 1, std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    message.timestamp = std::to_string(lastOwnTime_);
    TalkRecord record = TalkRecord::of(message, 0);
    try {
        const auto id = co_await parts_.talk.appendOwn(me_, std::move(message));
        record.id = id.value_or(0);
    } catch (const DatabaseException& error) {
        parts_.log.error("[Chat] a message could not be stored: ", error.what());
    }
    co_return record;
}

asio::awaitable<void> ChatWSClient::takeBack(std::int64_t id) {
    if (id == 0) co_return;
    try {
        co_await parts_.talk.removeOwn(id);
    } catch (const DatabaseException& error) {
        parts_.log.error("[Chat] a message could not be taken back: ", error.what());
    }
}

asio::awaitable<bool> ChatWSClient::doSendChat(std::string type, std::string destVip, std::string text) {
    if (status_ != ClientStatus::loggedIn) co_return false;
    json::object message = chatRequests::sendChat(destVip, type, text, parts_.terminal);
    TalkRecord own = co_await storeOwn(std::move(destVip), std::move(text), false);
    const bool isSent = co_await request(std::move(message));
    if (isSent) {
        inbox_.takeSent(std::move(own));
    } else {
        co_await takeBack(own.id);
    }
    co_return isSent;
}

asio::awaitable<ChatWSClient::Answer> ChatWSClient::doSendGroupMsg(std::string groupId, std::int64_t level,
                                                                   std::string text) {
    if (status_ != ClientStatus::loggedIn) co_return std::nullopt;
    json::object message = chatRequests::sendGroupMsg(groupId, level, text);
    ChatAnswers::Awaited awaited{"sendGroupMsgResp", "groupId", groupId};
    TalkRecord own = co_await storeOwn(std::move(groupId), std::move(text), true);
    Answer answer = co_await ask(std::move(message), std::move(awaited));
    // Without an answer it may have arrived, and stays in the store.
    if (answer && !chatFrame::isSuccess(*answer)) {
        co_await takeBack(own.id);
    } else {
        inbox_.takeSent(std::move(own));
    }
    co_return answer;
}

asio::awaitable<ChatWSClient::Answer> ChatWSClient::doTellGroup(std::string groupId, std::int64_t level,
                                                                std::string text) {
    bool isJustAsked = !joinedGroups_.contains(groupId);
    // A server may refuse this because we are in the group already, or say nothing: the message shows it.
    if (isJustAsked) co_await doJoinGroup(groupId);
    for (;;) {
        Answer answer = co_await doSendGroupMsg(groupId, level, text);
        if (answer && chatFrame::isSuccess(*answer)) joinedGroups_.insert(groupId);
        if (!answer || chatFrame::isSuccess(*answer) || isJustAsked) co_return answer;
        // The server has put us out of the group since we joined.
        joinedGroups_.erase(groupId);
        isJustAsked = true;
        co_await doJoinGroup(groupId);
    }
}

asio::awaitable<ChatWSClient::Answer> ChatWSClient::doJoinGroup(std::string groupId) {
    json::object question = chatRequests::joinGroup(groupId);
    ChatAnswers::Awaited awaited{"joinGroupResp", "groupId", groupId};
    Answer answer = co_await ask(std::move(question), std::move(awaited));
    if (answer && chatFrame::isSuccess(*answer)) joinedGroups_.insert(std::move(groupId));
    co_return answer;
}

asio::awaitable<bool> ChatWSClient::doSendAccelerateMessage(AccelerateMessage message) {
    const std::string group = AccelerateMessage::groupId;
    const Clock::TimePoint until = parts_.clock.now() + accelerateLimit;
    for (;;) {
        const std::uint64_t seen = statusChanges_.seen();
        if (status_ == ClientStatus::loggedIn) {
            if (!joinedGroups_.contains(group)) co_await doJoinGroup(group);
            // A server may refuse because we are in the group already, or say nothing: the message shows it.
            if (status_ == ClientStatus::loggedIn) break;
        }
        if (parts_.clock.now() >= until) co_return false;
        co_await statusChanges_.since(seen, parts_.clock, until - parts_.clock.now());
    }
    const std::string text = message.orderedJSONString();
    json::object request = chatRequests::sendGroupMsg(group, 0, text);
    TalkRecord own = co_await storeOwn(group, text, true);
    // From here on there is no way back: a message that broke off half-way may have arrived.
    if (co_await doSend(std::move(request))) {
        parts_.log.warning("[Accelerate] group message sent grp_magnet task=", message.name);
        inbox_.takeSent(std::move(own));
        co_return true;
    }
    co_await takeBack(own.id);
    co_return false;
}

}  // namespace skein
