#pragma once

#include "app/api/ChatGate.h"

namespace skein {

/// The friends and groups of the chat in the local API (docs/api.md). Owner: ChatRoutes. Thread: any strand.
class ChatContactRoutes {
public:
    explicit ChatContactRoutes(ChatHost& chat) : chat_(chat), gate_(chat) {}

    void addTo(Router& router);

private:
    asio::awaitable<HTTPServerResponse> friends(std::string, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> addFriend(std::string, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> deleteFriend(std::string user, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> groups(std::string, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> joinGroup(std::string, HTTPServerRequest request);

    ChatHost& chat_;
    ChatGate gate_;
};

}  // namespace skein
