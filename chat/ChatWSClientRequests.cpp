#include "chat/ChatFrame.h"
#include "chat/ChatRequests.h"
#include "chat/ChatWSClient.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace json = boost::json;

namespace {

std::int64_t millisecondsOf(Clock::WallTime time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count();
}

}  // namespace

std::string ChatWSClient::urlOf(const std::string& ip, const std::string& port) {
    const bool isBareIPv6 = ip.find(':') != std::string::npos && !ip.starts_with('[');
    return "ws://" + (isBareIPv6 ? "[" + ip + "]" : ip) + ":" + (port == "8010" ? "8020" : port) + "/ws";
}

asio::awaitable<void> ChatWSClient::connect(std::string ip, std::string port) { return connect(urlOf(ip, port)); }

asio::awaitable<void> ChatWSClient::connect(std::string wsUrl) { return tasks_.call(doConnect(std::move(wsUrl))); }

asio::awaitable<void> ChatWSClient::disconnect(std::chrono::seconds delay) { return tasks_.call(doDisconnect(delay)); }

asio::awaitable<void> ChatWSClient::cancelDisconnect() { return tasks_.call(doCancelDisconnect()); }

asio::awaitable<void> ChatWSClient::checkConnect() { return tasks_.call(doCheckConnect()); }

asio::awaitable<bool> ChatWSClient::waitForLogin(Clock::Duration limit) { return tasks_.call(doWaitForLogin(limit)); }

asio::awaitable<ChatState> ChatWSClient::state() { return tasks_.call(doState()); }

asio::awaitable<bool> ChatWSClient::sendJSON(json::object message) { return tasks_.call(doSend(std::move(message))); }

asio::awaitable<bool> ChatWSClient::clientLogin() { return tasks_.call(doLogin()); }

asio::awaitable<bool> ChatWSClient::sendChat(std::string type, std::string destVip, std::string text) {
    return tasks_.call(doSendChat(std::move(type), std::move(destVip), std::move(text)));
}

asio::awaitable<ChatWSClient::History> ChatWSClient::getChatHistory(std::string destVip, Clock::WallTime startTime,
                                                                    Clock::WallTime endTime) {
    return tasks_.call(doGetChatHistory(std::move(destVip), millisecondsOf(startTime), millisecondsOf(endTime)));
}

asio::awaitable<bool> ChatWSClient::readChat(std::string destVip, Clock::WallTime readTime) {
    return tasks_.call(request(chatRequests::readChat(destVip, millisecondsOf(readTime))));
}

asio::awaitable<ChatWSClient::Answer> ChatWSClient::getFriendList() {
    return tasks_.call(ask(chatRequests::getFriendList(), {.cmd = "friendList", .subjectKey = {}, .subject = {}}));
}

asio::awaitable<ChatWSClient::Answer> ChatWSClient::addFriend(std::string newFriend) {
    return tasks_.call(ask(chatRequests::addFriend(newFriend), {"addFriendResp", "friendId", newFriend}));
}

asio::awaitable<bool> ChatWSClient::deleteFriend(std::string friendId) {
    return tasks_.call(request(chatRequests::deleteFriend(friendId)));
}

asio::awaitable<ChatWSClient::Answer> ChatWSClient::sendGroupMsg(std::string groupId, std::int64_t level,
                                                                 std::string text) {
    return tasks_.call(doSendGroupMsg(std::move(groupId), level, std::move(text)));
}

asio::awaitable<ChatWSClient::Answer> ChatWSClient::tellGroup(std::string groupId, std::int64_t level,
                                                              std::string text) {
    return tasks_.call(doTellGroup(std::move(groupId), level, std::move(text)));
}

asio::awaitable<ChatWSClient::Answer> ChatWSClient::joinGroup(std::string groupId) {
    return tasks_.call(doJoinGroup(std::move(groupId)));
}

asio::awaitable<ChatWSClient::Answer> ChatWSClient::getGroupList() {
    return tasks_.call(ask(chatRequests::getGroupList(), {.cmd = "groupList", .subjectKey = {}, .subject = {}}));
}

asio::awaitable<ChatWSClient::History> ChatWSClient::getGroupHistory(std::string groupId, Clock::WallTime before,
                                                                     std::int64_t limit) {
    return tasks_.call(doGetGroupHistory(std::move(groupId), millisecondsOf(before), limit));
}

asio::awaitable<bool> ChatWSClient::sendLogout() { return tasks_.call(doSend(chatRequests::logout())); }

asio::awaitable<bool> ChatWSClient::sendAccelerateMessage(AccelerateMessage message) {
    return tasks_.call(doSendAccelerateMessage(std::move(message)));
}

asio::awaitable<bool> ChatWSClient::doSend(json::object message) {
    return link_.send(std::move(message), link_.nextSeq());
}

/// A request that only who is signed in can make.
asio::awaitable<bool> ChatWSClient::request(json::object message) {
    if (status_ != ClientStatus::loggedIn) co_return false;
    co_return co_await doSend(std::move(message));
}

asio::awaitable<ChatWSClient::Answer> ChatWSClient::ask(json::object message, ChatAnswers::Awaited awaited) {
    if (status_ != ClientStatus::loggedIn) co_return std::nullopt;
    const std::int64_t seq = link_.nextSeq();
    ChatAnswers::Place place(answers_, seq, std::move(awaited));
    if (!co_await link_.send(std::move(message), seq)) co_return std::nullopt;
    try {
        co_await within(parts_.clock, answerLimit, place.wait());
    } catch (const TimeLimitExceeded&) {
        // Nothing has come, and so nothing is returned.
    }
    co_return place.take();
}

asio::awaitable<ChatWSClient::History> ChatWSClient::doGetChatHistory(std::string destVip, std::int64_t start,
                                                                      std::int64_t end) {
    json::object question = chatRequests::getChatHistory(destVip, end, historyPage);
    ChatAnswers::Awaited awaited{"chatHistory", {}, {}};
    const Answer answer = co_await ask(std::move(question), std::move(awaited));
    if (!answer) co_return std::nullopt;
    std::vector<ChatMessage> messages = ChatInbox::messagesIn(*answer, me_);
    std::erase_if(messages, [start](const ChatMessage& message) { return message.sentAt() < start; });
    co_return messages;
}

asio::awaitable<ChatWSClient::History> ChatWSClient::doGetGroupHistory(std::string groupId, std::int64_t before,
                                                                       std::int64_t limit) {
    json::object question = chatRequests::getGroupHistory(groupId, before, limit);
    ChatAnswers::Awaited awaited{"groupHistory", "groupId", std::move(groupId)};
    const Answer answer = co_await ask(std::move(question), std::move(awaited));
    if (!answer) co_return std::nullopt;
    co_return ChatInbox::groupMessagesIn(*answer);
}

}  // namespace skein
