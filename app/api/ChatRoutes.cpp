#include "app/api/ChatRoutes.h"

#include "app/api/ChatJSON.h"
#include "app/api/JSONBody.h"
#include "chat/ChatFrame.h"
#include "public/common/ErrorText.h"
#include "public/common/Within.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <algorithm>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <utility>

namespace skein {

namespace {

namespace json = boost::json;

constexpr std::int64_t groupLevel = 1;  // of a message that is no alarm

Clock::WallTime wallTimeOf(std::int64_t milliseconds) {
    return Clock::WallTime(std::chrono::milliseconds(milliseconds));
}

/// Two texts that both have to be there. Throws std::exception with a text for the caller.
std::pair<std::string, std::string> textsIn(const HTTPServerRequest& request, const char* whom) {
    const json::object body = objectIn(request);
    std::pair<std::string, std::string> texts(body.at(whom).as_string(), body.at("text").as_string());
    if (texts.first.empty() || texts.second.empty()) throw std::runtime_error("an empty text goes nowhere");
    return texts;
}

/// The number that a parameter is; nothing when it was not given. Throws std::runtime_error for another text.
template <class Number>
std::optional<Number> numberIn(const HTTPServerRequest& request, const char* name) {
    const auto found = request.query.find(name);
    if (found == request.query.end()) return std::nullopt;
    const std::string& text = found->second;
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        throw std::runtime_error(std::string(name) + " is no number: " + text);
    return number;
}

TalkPartner partnerOf(std::string user, std::string group) {
    if (user.empty() == group.empty()) throw std::runtime_error("a user or a group is needed");
    const bool isGroup = user.empty();
    return {isGroup ? std::move(group) : std::move(user), isGroup};
}

ChatRoutes::HistoryWish wishIn(HTTPServerRequest& request) {
    ChatRoutes::HistoryWish wish;
    wish.partner = partnerOf(request.query["user"], request.query["group"]);
    wish.limit = std::clamp<std::int64_t>(numberIn<std::int64_t>(request, "limit").value_or(wish.limit), 1,
                                          TalkData::largestPage);
    if (const auto time = numberIn<double>(request, "before"))
        wish.before = {millisecondsOf(*time), numberIn<std::int64_t>(request, "beforeId").value_or(0)};
    return wish;
}

/// Which conversation was read, and up to when.
struct ReadWish {
    TalkPartner partner;
    std::optional<std::int64_t> until;  ///< milliseconds since 1970
};

ReadWish readWishIn(const HTTPServerRequest& request) {
    const json::object body = objectIn(request);
    const auto textIn = [&body](const char* key) {
        const json::value* const value = body.if_contains(key);
        return value == nullptr ? std::string() : std::string(value->as_string());
    };
    ReadWish wish{partnerOf(textIn("user"), textIn("group")), std::nullopt};
    if (const json::value* const time = body.if_contains("upTo"))
        wish.until = millisecondsOf(time->to_number<double>());
    return wish;
}

template <class Record>
HTTPServerResponse listOf(const std::vector<Record>& records) {
    json::array list;
    for (const Record& record : records) list.push_back(asJSON(record));
    return jsonReply(list);
}

}  // namespace

void ChatRoutes::addTo(Router& router) {
    router.add("GET", "/api/v1/chat/status", this, &ChatRoutes::status);
    router.add("POST", "/api/v1/chat/connect", this, &ChatRoutes::connect);
    router.add("POST", "/api/v1/chat/send", this, &ChatRoutes::send);
    router.add("POST", "/api/v1/chat/group", this, &ChatRoutes::sendToGroup);
    router.add("GET", "/api/v1/chat/history", this, &ChatRoutes::history);
    router.add("GET", "/api/v1/chat/talks", this, &ChatRoutes::talks);
    router.add("POST", "/api/v1/chat/read", this, &ChatRoutes::markRead);
    contacts_.addTo(router);
    media_.addTo(router);
}

asio::awaitable<HTTPServerResponse> ChatRoutes::status(std::string, HTTPServerRequest) {
    const ChatState state = co_await chat_.client().state();
    co_return jsonReply(json::object{{"status", textOf(state.status)},
                                     {"active", state.active},
                                     {"user", state.user},
                                     {"newChatCount", state.newChatCount}});
}

/// Returns once we are signed in.
asio::awaitable<HTTPServerResponse> ChatRoutes::connect(std::string, HTTPServerRequest) {
    co_await chat_.client().checkConnect();
    auto refused = co_await gate_.refusal();
    co_return refused ? std::move(*refused) : jsonDone();
}

/// An object with `to` and `text`.
asio::awaitable<HTTPServerResponse> ChatRoutes::send(std::string, HTTPServerRequest request) {
    std::pair<std::string, std::string> texts;
    try {
        texts = textsIn(request, "to");
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    if (auto refused = co_await gate_.refusal()) co_return std::move(*refused);
    std::string type = "text";
    const bool isSent =
        co_await chat_.client().sendChat(std::move(type), std::move(texts.first), std::move(texts.second));
    co_return isSent ? jsonDone() : Router::error(502, "the message did not go out");
}

/// An object with `group` and `text`.
asio::awaitable<HTTPServerResponse> ChatRoutes::sendToGroup(std::string, HTTPServerRequest request) {
    std::pair<std::string, std::string> texts;
    try {
        texts = textsIn(request, "group");
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    if (auto refused = co_await gate_.refusal()) co_return std::move(*refused);
    const ChatWSClient::Answer sent =
        co_await chat_.client().tellGroup(std::move(texts.first), groupLevel, std::move(texts.second));
    if (!sent) co_return Router::error(502, "the chat server did not say whether it took the message");
    if (chatFrame::isSuccess(*sent)) co_return jsonDone();
    co_return Router::error(502, "the chat server refused the message, or does not let us into that group");
}

/// Of the store; refreshed from the server first, when it is there.
asio::awaitable<HTTPServerResponse> ChatRoutes::history(std::string, HTTPServerRequest request) {
    if (auto refused = co_await gate_.refusalWithoutAccount()) co_return std::move(*refused);
    HistoryWish wish;
    try {
        wish = wishIn(request);
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    const std::vector<TalkRecord> records = co_await refreshed(std::move(wish));
    co_return listOf(records);
}

asio::awaitable<std::vector<TalkRecord>> ChatRoutes::refreshed(HistoryWish wish) {
    // The server's clock may be ahead of ours.
    const Clock::WallTime newest = chat_.host().clock().wallNow() + std::chrono::hours(24);
    const Clock::WallTime end = wish.before ? wallTimeOf(wish.before->sentAt) : newest;
    co_await patiently(refresh(wish.partner, end, wish.limit));
    co_return co_await stored(std::move(wish));
}

asio::awaitable<std::vector<TalkRecord>> ChatRoutes::stored(HistoryWish wish) {
    std::string owner = co_await chat_.owner();
    co_return co_await chat_.talk().history(std::move(owner), std::move(wish.partner), wish.limit, wish.before);
}

asio::awaitable<void> ChatRoutes::patiently(asio::awaitable<void> work) {
    try {
        co_await within(chat_.host().clock(), serverPatience_, std::move(work));
    } catch (const TimeLimitExceeded&) {
        // The store answers.
    }
}

/// What the server knows of the `limit` messages before `end` goes into the store, if the server is there.
asio::awaitable<void> ChatRoutes::refresh(TalkPartner partner, Clock::WallTime end, std::int64_t limit) {
    const bool isIn = co_await gate_.isIn();
    for (std::int64_t asked = 0; isIn && asked < limit; asked += ChatWSClient::historyPage) {
        ChatWSClient::History page;
        if (partner.isGroup) {
            page = co_await chat_.client().getGroupHistory(partner.id, end, ChatWSClient::historyPage);
        } else {
            page = co_await chat_.client().getChatHistory(partner.id, Clock::WallTime(), end);
        }
        if (!page || std::cmp_less(page->size(), ChatWSClient::historyPage)) co_return;
        for (const ChatMessage& message : *page) end = std::min(end, wallTimeOf(message.sentAt()));
    }
}

asio::awaitable<HTTPServerResponse> ChatRoutes::talks(std::string, HTTPServerRequest) {
    if (auto refused = co_await gate_.refusalWithoutAccount()) co_return std::move(*refused);
    std::string owner = co_await chat_.owner();
    const std::vector<TalkConversation> conversations = co_await chat_.talk().conversations(std::move(owner));
    co_return listOf(conversations);
}

/// An object with `user` or `group`, and `upTo` when not all that is stored was read.
asio::awaitable<HTTPServerResponse> ChatRoutes::markRead(std::string, HTTPServerRequest request) {
    ReadWish wish;
    try {
        wish = readWishIn(request);
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    if (auto refused = co_await gate_.refusalWithoutAccount()) co_return std::move(*refused);
    if (!wish.until) wish.until = co_await lastTimeOf(wish.partner);
    co_await chat_.markRead(wish.partner, *wish.until);
    // The server keeps no count of a group's messages.
    if (!wish.partner.isGroup) co_await patiently(tellRead(wish.partner.id, wallTimeOf(*wish.until)));
    co_return jsonDone();
}

/// Of the last message that is stored, as nobody reads what is not there yet: what was sent before now may still be on
/// its way.
asio::awaitable<std::int64_t> ChatRoutes::lastTimeOf(TalkPartner partner) {
    HistoryWish wish{std::move(partner), 1, std::nullopt};
    const std::vector<TalkRecord> last = co_await stored(std::move(wish));
    if (!last.empty()) co_return last.front().sentAt;
    const auto now = chat_.host().clock().wallNow().time_since_epoch();
    co_return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

asio::awaitable<void> ChatRoutes::tellRead(std::string user, Clock::WallTime until) {
    const bool isIn = co_await gate_.isIn();
    if (isIn) co_await chat_.client().readChat(std::move(user), until);
}

}  // namespace skein
