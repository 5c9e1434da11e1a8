#pragma once

#include "app/EngineHost.h"
#include "chat/ChatWSClient.h"
#include "chat/TalkData.h"
#include "public/common/MsgCenter/MsgCenter.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <string>

namespace skein {

/// The chat of this process: its client, its store, and who speaks through them.
///
/// Owner: the daemon or a command, on the main thread. `host` and `center` outlive it. Thread: any.
class ChatHost final : private ChatIdentity {
public:
    /// The setting that names the chat server, HOST:PORT.
    static constexpr const char* serverKey = "chatServer";

    ChatHost(EngineHost& host, MsgCenter& center);
    /// Leaves the chat.
    ~ChatHost() override;

    ChatWSClient& client() noexcept { return client_; }
    TalkData& talk() noexcept { return talk_; }
    EngineHost& host() noexcept { return host_; }
    /// Empty when nobody is signed in.
    asio::awaitable<std::string> user();
    /// Under which name the store keeps what is ours: the chat server's for this user once it told it, else the
    /// account's. Empty when nobody is signed in.
    asio::awaitable<std::string> owner();
    /// Empty when it is not set.
    asio::awaitable<std::string> server();
    /// What was sent up to `until` (milliseconds since 1970) counts as read, in the store and in every window.
    asio::awaitable<void> markRead(TalkPartner partner, std::int64_t until);
    /// Comes, goes or changes the user, as the account and the settings say now. Returns at once.
    void accountChanged();
    /// Returns once the client is on its way to `server`, which the settings name now; at once when it is already.
    asio::awaitable<void> goTo(std::string server);
    /// Asks the others for a download's acceleration. Returns at once.
    void askForAcceleration(AccelerateMessage message);

private:
    asio::awaitable<ChatAccount> account() override;
    asio::awaitable<void> doGoTo(std::string server);
    asio::awaitable<void> follow();
    asio::awaitable<void> followOnce();
    asio::awaitable<void> ask(AccelerateMessage message);

    EngineHost& host_;
    MsgCenter& center_;
    TalkData talk_;
    ChatWSClient client_;
    std::string server_;       ///< that the client was told to connect to; empty: to none
    bool hasChanged_ = false;  ///< since follow() looked
    bool isFollowing_ = false;
    Strand strand_;
    Notifier followed_;
    TaskGroup tasks_;
};

}  // namespace skein
