#include "app/api/ChatRoutes.h"

#include "app/api/JSONBody.h"
#include "chat/ChatFrame.h"
#include "public/common/ErrorText.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <algorithm>
#include <charconv>

namespace skein {

namespace {

namespace json = boost::json;

constexpr std::int64_t usualPage = 50;
constexpr std::int64_t groupLevel = 1;  // of a message that is no alarm

/// Two texts that both have to be there. Throws std::exception with a text for the caller.
std::pair<std::string, std::string> textsIn(const HTTPServerRequest& request, const char* whom) {
    const json::object body = objectIn(request);
    std::pair<std::string, std::string> texts(body.at(whom).as_string(), body.at("text").as_string());
    if (texts.first.empty() || texts.second.empty()) throw std::runtime_error("an empty text goes nowhere");
    return texts;
}

json::array asJSON(const std::vector<TalkRecord>& records) {
    json::array list;
    for (const TalkRecord& record : records)
        list.push_back(json::object{{"from", record.from},
                                    {"to", record.to},
                                    {"isGroup", record.isGroup},
                                    {"text", record.text},
                                    {"time", static_cast<double>(record.sentAt) / 1000}});
    return list;
}

/// Which part of whose history is asked for.
struct HistoryWish {
    TalkPartner partner;
    std::int64_t limit = usualPage;
};

HistoryWish wishIn(HTTPServerRequest& request) {
    HistoryWish wish;
    wish.partner.isGroup = request.query.contains("group");
    wish.partner.id = request.query[wish.partner.isGroup ? "group" : "user"];
    const std::string& text = request.query["limit"];
    std::from_chars(text.data(), text.data() + text.size(), wish.limit);
    wish.limit = std::clamp<std::int64_t>(wish.limit, 1, TalkData::largestPage);
    return wish;
}

}  // namespace

void ChatRoutes::addTo(Router& router) {
    router.add("GET", "/api/v1/chat/status", this, &ChatRoutes::status);
    router.add("POST", "/api/v1/chat/send", this, &ChatRoutes::send);
    router.add("POST", "/api/v1/chat/group", this, &ChatRoutes::sendToGroup);
    router.add("GET", "/api/v1/chat/history", this, &ChatRoutes::history);
    router.add("GET", "/api/v1/chat/friends", this, &ChatRoutes::friends);
    router.add("POST", "/api/v1/chat/read", this, &ChatRoutes::markRead);
}

asio::awaitable<std::optional<HTTPServerResponse>> ChatRoutes::refusalWithoutAccount() {
    const std::string user = co_await chat_.user();
    if (user.empty()) co_return Router::error(409, "nobody is signed in");
    co_return std::nullopt;
}

asio::awaitable<std::optional<HTTPServerResponse>> ChatRoutes::refusal() {
    if (auto refused = co_await refusalWithoutAccount()) co_return refused;
    std::string server = co_await chat_.server();
    if (server.empty()) co_return Router::error(409, "chatServer not configured");
    co_await chat_.goTo(std::move(server));
    const bool isIn = co_await chat_.client().waitForLogin(loginLimit);
    if (!isIn) co_return Router::error(502, "the chat server cannot be reached, or refused the login");
    co_return std::nullopt;
}

asio::awaitable<HTTPServerResponse> ChatRoutes::status(std::string, HTTPServerRequest) {
    const ChatState state = co_await chat_.client().state();
    co_return jsonReply(json::object{{"status", textOf(state.status)},
                                     {"active", state.active},
                                     {"user", state.user},
                                     {"newChatCount", state.newChatCount}});
}

/// An object with `to` and `text`.
asio::awaitable<HTTPServerResponse> ChatRoutes::send(std::string, HTTPServerRequest request) {
    std::pair<std::string, std::string> texts;
    try {
        texts = textsIn(request, "to");
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    if (auto refused = co_await refusal()) co_return std::move(*refused);
    std::string type = "text";
    const bool isSent =
        co_await chat_.client().sendChat(std::move(type), std::move(texts.first), std::move(texts.second));
    co_return isSent ? jsonDone() : Router::error(502, "the message did not go out");
}

/// An object with `group` and `text`. The group is joined first.
asio::awaitable<HTTPServerResponse> ChatRoutes::sendToGroup(std::string, HTTPServerRequest request) {
    std::pair<std::string, std::string> texts;
    try {
        texts = textsIn(request, "group");
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    if (auto refused = co_await refusal()) co_return std::move(*refused);
    std::string group = texts.first;
    const ChatWSClient::Answer joined = co_await chat_.client().joinGroup(std::move(group));
    if (!joined || !chatFrame::isSuccess(*joined))
        co_return Router::error(502, "the server lets us not into that group");
    const ChatWSClient::Answer sent =
        co_await chat_.client().sendGroupMsg(std::move(texts.first), groupLevel, std::move(texts.second));
    co_return sent&& chatFrame::isSuccess(*sent) ? jsonDone()
                                                 : Router::error(502, "the server did not take the message");
}

/// Of the store; refreshed from the server first, when it is there.
asio::awaitable<HTTPServerResponse> ChatRoutes::history(std::string, HTTPServerRequest request) {
    const HistoryWish wish = wishIn(request);
    if (wish.partner.id.empty()) co_return Router::error(400, "a user or a group is needed");
    std::string owner = co_await chat_.user();
    if (owner.empty()) co_return Router::error(409, "nobody is signed in");
    co_await refresh(wish.partner);
    const std::vector<TalkRecord> records = co_await chat_.talk().history(std::move(owner), wish.partner, wish.limit);
    co_return jsonReply(asJSON(records));
}

/// What the server knows of it goes into the store, if the server is there.
asio::awaitable<void> ChatRoutes::refresh(TalkPartner partner) {
    std::string server = co_await chat_.server();
    if (server.empty()) co_return;
    co_await chat_.goTo(std::move(server));
    const bool isIn = co_await chat_.client().waitForLogin(refreshLimit);
    if (!isIn) co_return;
    const Clock::WallTime now = chat_.clock().wallNow();
    if (partner.isGroup) {
        co_await chat_.client().getGroupHistory(std::move(partner.id), now, ChatWSClient::historyPage);
    } else {
        co_await chat_.client().getChatHistory(std::move(partner.id), Clock::WallTime(), now);
    }
}

asio::awaitable<HTTPServerResponse> ChatRoutes::friends(std::string, HTTPServerRequest) {
    if (auto refused = co_await refusal()) co_return std::move(*refused);
    const ChatWSClient::Answer answer = co_await chat_.client().getFriendList();
    if (!answer) co_return Router::error(502, "the server did not answer");
    json::array ids;
    for (const std::string& id : chatFrame::idsOf(*answer)) ids.push_back(json::string(id));
    co_return jsonReply(ids);
}

/// An object with `user`.
asio::awaitable<HTTPServerResponse> ChatRoutes::markRead(std::string, HTTPServerRequest request) {
    if (auto refused = co_await refusalWithoutAccount()) co_return std::move(*refused);
    std::string user;
    try {
        user = objectIn(request).at("user").as_string();
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    co_await chat_.client().readChat(std::move(user), chat_.clock().wallNow());
    co_return jsonDone();
}

}  // namespace skein
