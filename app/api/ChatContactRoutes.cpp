#include "app/api/ChatContactRoutes.h"

#include "app/api/JSONBody.h"
#include "chat/ChatFrame.h"
#include "public/common/ErrorText.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <stdexcept>
#include <utility>

namespace skein {

namespace {

namespace json = boost::json;

/// A text of the request's body. Throws std::exception with a text for the caller.
std::string nameIn(const HTTPServerRequest& request, const char* key) {
    const json::object body = objectIn(request);
    std::string name(body.at(key).as_string());
    if (name.empty()) throw std::runtime_error("an empty name is nobody's");
    return name;
}

HTTPServerResponse idsIn(const ChatWSClient::Answer& answer) {
    if (!answer) return Router::error(502, "the chat server did not answer");
    json::array ids;
    for (const std::string& id : chatFrame::idsOf(*answer)) ids.push_back(json::string(id));
    return jsonReply(ids);
}

HTTPServerResponse outcome(const ChatWSClient::Answer& answer, const char* refusal) {
    if (!answer) return Router::error(502, "the chat server did not answer");
    return chatFrame::isSuccess(*answer) ? jsonDone() : Router::error(502, refusal);
}

}  // namespace

void ChatContactRoutes::addTo(Router& router) {
    router.add("GET", "/api/v1/chat/friends", this, &ChatContactRoutes::friends);
    router.add("POST", "/api/v1/chat/friends", this, &ChatContactRoutes::addFriend);
    router.add("DELETE", "/api/v1/chat/friends/{user}", this, &ChatContactRoutes::deleteFriend);
    router.add("GET", "/api/v1/chat/groups", this, &ChatContactRoutes::groups);
    router.add("POST", "/api/v1/chat/groups", this, &ChatContactRoutes::joinGroup);
}

asio::awaitable<HTTPServerResponse> ChatContactRoutes::friends(std::string, HTTPServerRequest) {
    if (auto refused = co_await gate_.refusal()) co_return std::move(*refused);
    const ChatWSClient::Answer answer = co_await chat_.client().getFriendList();
    co_return idsIn(answer);
}

/// An object with `user`.
asio::awaitable<HTTPServerResponse> ChatContactRoutes::addFriend(std::string, HTTPServerRequest request) {
    std::string user;
    try {
        user = nameIn(request, "user");
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    if (auto refused = co_await gate_.refusal()) co_return std::move(*refused);
    const ChatWSClient::Answer answer = co_await chat_.client().addFriend(std::move(user));
    co_return outcome(answer, "the chat server does not add that user");
}

asio::awaitable<HTTPServerResponse> ChatContactRoutes::deleteFriend(std::string user, HTTPServerRequest) {
    if (auto refused = co_await gate_.refusal()) co_return std::move(*refused);
    const bool isSent = co_await chat_.client().deleteFriend(std::move(user));
    co_return isSent ? jsonDone() : Router::error(502, "the request did not go out");
}

asio::awaitable<HTTPServerResponse> ChatContactRoutes::groups(std::string, HTTPServerRequest) {
    if (auto refused = co_await gate_.refusal()) co_return std::move(*refused);
    const ChatWSClient::Answer answer = co_await chat_.client().getGroupList();
    co_return idsIn(answer);
}

/// An object with `group`.
asio::awaitable<HTTPServerResponse> ChatContactRoutes::joinGroup(std::string, HTTPServerRequest request) {
    std::string group;
    try {
        group = nameIn(request, "group");
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    if (auto refused = co_await gate_.refusal()) co_return std::move(*refused);
    const ChatWSClient::Answer answer = co_await chat_.client().joinGroup(std::move(group));
    co_return outcome(answer, "the chat server does not let us into that group");
}

}  // namespace skein
