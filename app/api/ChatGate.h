#pragma once

#include "app/ChatHost.h"
#include "app/api/Router.h"

#include <chrono>
#include <optional>
#include <string>

namespace skein {

/// Decides for every call of the chat whether it can be done now. Thread: any strand. `chat` outlives it.
class ChatGate {
public:
    /// For the login, where a message is to be sent: a command waits for it no longer.
    static constexpr std::chrono::seconds loginLimit{10};
    /// Where the store answers without the server.
    static constexpr std::chrono::seconds refreshLimit{3};

    explicit ChatGate(ChatHost& chat) : chat_(chat) {}

    /// 409 while nobody is signed in.
    asio::awaitable<std::optional<HTTPServerResponse>> refusalWithoutAccount();
    /// 409 while nobody is signed in or the server is not known, 502 while it does not let us in. Connects first.
    asio::awaitable<std::optional<HTTPServerResponse>> refusal();
    /// Whether the server has let us in, after `refreshLimit` at the latest. Connects first.
    asio::awaitable<bool> isIn();

private:
    ChatHost& chat_;
};

}  // namespace skein
