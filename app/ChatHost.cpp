#include "app/ChatHost.h"

#include "chat/ChatConversationRead.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

#include <utility>

namespace skein {

namespace {

ChatTerminal thisProgram() {
    ChatTerminal terminal;
    terminal.softVer = SKEIN_VERSION;
    return terminal;
}

}  // namespace

ChatHost::ChatHost(EngineHost& host, MsgCenter& center)
    : host_(host),
      center_(center),
      talk_(host.home() / "talk.db", host.pools().disk(), host.log()),
      client_(host.pools().io(),
              {host.clock(), host.wayOut(), *this, host.settings(), talk_, center, host.log(), thisProgram()}),
      strand_(asio::make_strand(host.pools().io())),
      followed_(strand_),
      tasks_(strand_) {}

ChatHost::~ChatHost() {
    asio::co_spawn(host_.pools().io(), tasks_.stop(), asio::use_future).get();
    asio::co_spawn(host_.pools().io(), client_.stop(), asio::use_future).get();
}

asio::awaitable<ChatAccount> ChatHost::account() {
    const ServiceAccess access = co_await host_.account().access();
    co_return ChatAccount{access.userID, access.token, access.deviceId};
}

asio::awaitable<std::string> ChatHost::user() {
    const ServiceAccess access = co_await host_.account().access();
    co_return access.userID;
}

asio::awaitable<std::string> ChatHost::owner() {
    std::string account = co_await user();
    ChatState state = co_await client_.state();
    // The name that the server gave to another account is not this one's.
    const bool isKnown = !account.empty() && state.account == account && !state.user.empty();
    co_return isKnown ? std::move(state.user) : std::move(account);
}

asio::awaitable<void> ChatHost::markRead(TalkPartner partner, std::int64_t until) {
    std::string name = co_await owner();
    const ChatConversationRead read{partner, until};
    co_await talk_.markRead(std::move(name), std::move(partner), until);
    center_.publish(read);
}

asio::awaitable<std::string> ChatHost::server() {
    const std::optional<std::string> set = co_await host_.settings().text(serverKey);
    co_return set.value_or("");
}

void ChatHost::accountChanged() { tasks_.spawn(follow()); }

asio::awaitable<void> ChatHost::goTo(std::string server) { return tasks_.call(doGoTo(std::move(server))); }

asio::awaitable<void> ChatHost::doGoTo(std::string server) {
    while (isFollowing_) co_await followed_.wait();
    if (server != server_) co_await follow();
}

/// One at a time, as a server that stalls may hold it up; what changes meanwhile is looked at next.
asio::awaitable<void> ChatHost::follow() {
    hasChanged_ = true;
    if (std::exchange(isFollowing_, true)) co_return;
    while (std::exchange(hasChanged_, false)) co_await followOnce();
    isFollowing_ = false;
    followed_.notify();
}

asio::awaitable<void> ChatHost::followOnce() {
    std::string failure;
    try {
        std::string address = co_await server();
        const std::string name = co_await user();
        const std::size_t colon = address.rfind(':');
        if (name.empty() || colon == std::string::npos) {
            server_.clear();
            co_await client_.sendLogout();
            // Somebody else may have signed in while the server kept us waiting.
            const std::string nameNow = co_await user();
            if (nameNow == name) co_await client_.disconnect();
        } else {
            std::string ip = address.substr(0, colon);
            std::string port = address.substr(colon + 1);
            server_ = std::move(address);
            co_await client_.connect(std::move(ip), std::move(port));
        }
    } catch (const DatabaseException& error) {
        failure = error.what();
    }
    if (!failure.empty()) host_.log().warning("[Manager] the chat's settings cannot be read: ", failure);
}

void ChatHost::askForAcceleration(AccelerateMessage message) { tasks_.spawn(ask(std::move(message))); }

asio::awaitable<void> ChatHost::ask(AccelerateMessage message) {
    const std::string name = message.name;
    std::string failure;
    try {
        message.user = co_await user();
        const bool isSent = co_await client_.sendAccelerateMessage(std::move(message));
        if (!isSent) failure = "the chat cannot be reached";
    } catch (const DatabaseException& error) {
        failure = error.what();
    }
    if (!failure.empty()) host_.log().info("[Accelerate] ", failure, ", task=", name);
}

}  // namespace skein
