#pragma once

#include "app/api/ChatContactRoutes.h"
#include "app/api/ChatGate.h"
#include "app/api/ChatMediaRoutes.h"

namespace skein {

/// What the local API offers of the chat, under /api/v1/chat (docs/api.md).
///
/// Owner: the daemon, or a command that works without one. Thread: any strand.
class ChatRoutes {
public:
    /// Which part of whose history is asked for.
    struct HistoryWish {
        TalkPartner partner;
        std::int64_t limit = 50;
        std::optional<TalkPlace> before;
    };

    struct Options {
        bool allowsLocalPeers = false;  ///< what others name may lead into the user's own network
        /// How long an answer that the store can give waits for what the chat server knows beyond it. A server that
        /// answers later still fills the store, and who listens to the events is told.
        Clock::Duration serverPatience = std::chrono::milliseconds(200);
    };

    ChatRoutes(ChatHost& chat, Options options)
        : chat_(chat),
          serverPatience_(options.serverPatience),
          gate_(chat),
          contacts_(chat),
          media_(chat, options.allowsLocalPeers) {}

    void addTo(Router& router);

private:
    asio::awaitable<HTTPServerResponse> status(std::string, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> connect(std::string, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> send(std::string, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> sendToGroup(std::string, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> history(std::string, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> talks(std::string, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> markRead(std::string, HTTPServerRequest request);

    asio::awaitable<void> refresh(TalkPartner partner, Clock::WallTime end, std::int64_t limit);

    asio::awaitable<std::vector<TalkRecord>> refreshed(HistoryWish wish);
    asio::awaitable<std::vector<TalkRecord>> stored(HistoryWish wish);
    /// Milliseconds since 1970.
    asio::awaitable<std::int64_t> lastTimeOf(TalkPartner partner);
    asio::awaitable<void> tellRead(std::string user, Clock::WallTime until);

    /// Awaits `work` for as long as the server is waited for; it needs no end.
    asio::awaitable<void> patiently(asio::awaitable<void> work);

    ChatHost& chat_;
    const Clock::Duration serverPatience_;
    ChatGate gate_;
    ChatContactRoutes contacts_;
    ChatMediaRoutes media_;
};

}  // namespace skein
