#pragma once

#include "app/ChatHost.h"
#include "app/api/Router.h"

#include <optional>

namespace skein {

/// What the local API offers of the chat, under /api/v1/chat (docs/api.md).
///
/// Owner: the daemon, or a command that works without one. Thread: any strand.
class ChatRoutes {
public:
    /// For the login, where a message is to be sent: a command waits for it no longer.
    static constexpr std::chrono::seconds loginLimit{10};
    /// Where the store answers without the server.
    static constexpr std::chrono::seconds refreshLimit{3};

    explicit ChatRoutes(ChatHost& chat) : chat_(chat) {}

    void addTo(Router& router);

private:
    asio::awaitable<HTTPServerResponse> status(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> send(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> sendToGroup(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> history(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> friends(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> markRead(std::string task, HTTPServerRequest request);

    /// Why nothing can be sent, if so: 409 while nobody is signed in or the server is not known, 502 while it does not
    /// let us in.
    asio::awaitable<std::optional<HTTPServerResponse>> refusal();
    asio::awaitable<std::optional<HTTPServerResponse>> refusalWithoutAccount();
    asio::awaitable<void> refresh(TalkPartner partner);

    ChatHost& chat_;
};

}  // namespace skein
