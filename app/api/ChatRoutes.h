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

    /// `allowsLocalPeers`: what others name may lead into the user's own network.
    explicit ChatRoutes(ChatHost& chat, bool allowsLocalPeers = false)
        : chat_(chat), gate_(chat), contacts_(chat), media_(chat, allowsLocalPeers) {}

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

    ChatHost& chat_;
    ChatGate gate_;
    ChatContactRoutes contacts_;
    ChatMediaRoutes media_;
};

}  // namespace skein
