#pragma once

#include "app/MediaDownload.h"
#include "app/api/ChatGate.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

namespace skein {

/// Saves the media of chat messages, in the local API (docs/api.md). Owner: ChatRoutes. Thread: any strand.
class ChatMediaRoutes {
public:
    /// Where the address rules are open, every call may fetch from the user's own network.
    ChatMediaRoutes(ChatHost& chat, bool allowsLocalPeers)
        : chat_(chat),
          gate_(chat),
          download_(chat.host().http(), chat.host().pools().disk()),
          allowsLocalPeers_(allowsLocalPeers) {}

    void addTo(Router& router);

private:
    asio::awaitable<HTTPServerResponse> save(std::string, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> saveFrom(std::int64_t id, std::string folder, AddressOrigin origin);
    /// Nothing when there is no such message, or nothing came with it.
    asio::awaitable<std::optional<ChatMedia>> mediaOf(std::int64_t id);
    /// The download folder when none is given. Throws std::runtime_error for what is no folder.
    asio::awaitable<std::filesystem::path> folderOf(std::string given);

    ChatHost& chat_;
    ChatGate gate_;
    MediaDownload download_;
    const bool allowsLocalPeers_;
};

}  // namespace skein
