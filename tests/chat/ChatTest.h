#pragma once

#include "chat/ChatMessageReceived.h"
#include "chat/ChatStatusChanged.h"
#include "chat/ChatWSClient.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TestChatRoom.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace skein {

class KnownIdentity final : public ChatIdentity {
public:
    explicit KnownIdentity(ChatAccount known) : value(std::move(known)) {}
    asio::awaitable<ChatAccount> account() override { co_return value; }
    ChatAccount value;
};

/// One user at a machine of their own.
struct ChatUser {
    ChatUser(Simulation& time, const std::string& user, const std::string& pass)
        : simulation(time), identity({user, pass, "device-" + user}) {}
    ~ChatUser() { simulation.finish(client.stop()); }

    void logIn(const TestChatRoom& room) {
        simulation.finish(client.connect(room.url()));
        waitUntilLoggedIn();
    }
    void waitUntilLoggedIn() {
        simulation.runUntil([this] { return isLoggedIn(); });
    }
    void waitUntilDisconnected() {
        simulation.runUntil([this] { return !isConnected(); });
    }
    void waitFor(const std::string& text, std::ptrdiff_t times = 1) {
        simulation.runUntil([&] { return timesReceived(text) >= times; });
    }
    ChatState state() { return simulation.finish(client.state()); }
    bool isLoggedIn() const { return !statuses.empty() && statuses.back() == "loggedIn status:success"; }
    bool isConnected() const { return !statuses.empty() && statuses.back() != "disconnected "; }
    auto attempts() const { return std::count(statuses.begin(), statuses.end(), "connecting "); }
    std::ptrdiff_t timesReceived(const std::string& text) const {
        return std::count_if(received.begin(), received.end(),
                             [&](const ChatMessageReceived& one) { return one.message.text == text; });
    }
    bool say(const std::string& to, const std::string& text) {
        return simulation.finish(client.sendChat("text", to, text));
    }
    /// "from: text" of what the store has of one conversation.
    std::vector<std::string> history(const std::string& partner, bool isGroup = false) {
        TalkPartner with{partner, isGroup};
        std::vector<std::string> lines;
        for (const TalkRecord& one : simulation.finish(talk.history(identity.value.user, with, 200)))
            lines.push_back(one.from + ": " + one.text);
        return lines;
    }

    Simulation& simulation;
    KnownIdentity identity;
    TemporaryFolder folder;
    RecordingLogger log;
    SystemNameResolver resolver;
    SettingsStore settings{folder.path() / "settings.db", log};
    TalkData talk{folder.path() / "talk.db", simulation.executor(), log};
    MsgCenter center;
    std::vector<ChatMessageReceived> received;
    std::vector<std::string> statuses;  ///< each with its text
    Subscription messages = center.subscribe<ChatMessageReceived>(
        simulation.executor(), [this](const ChatMessageReceived& one) { received.push_back(one); });
    Subscription changes =
        center.subscribe<ChatStatusChanged>(simulation.executor(), [this](const ChatStatusChanged& change) {
            statuses.push_back(std::string(textOf(change.status)) + " " + change.text);
        });
    ActorSettings actorSettings{settings, simulation.executor()};
    ChatTerminal terminal{.softVer = "1.2", .osVer = "Linux 6"};
    ChatWSClient client{simulation.executor(),
                        {simulation, resolver, identity, actorSettings, talk, center, log, terminal}};
};

/// Alice and Bob, and a server for both.
class ChatTest : public testing::Test {
protected:
    ~ChatTest() override { simulation.finish(room.stop()); }

    /// Time goes by second for second, and after each what the sockets bring is handled.
    void pass(std::chrono::seconds duration) {
        for (auto left = duration; left.count() > 0; --left) {
            simulation.advance(std::chrono::seconds(1));
            const auto quietAt = std::chrono::steady_clock::now() + std::chrono::milliseconds(2);
            simulation.runUntil([&] { return std::chrono::steady_clock::now() > quietAt; });
        }
    }

    /// Until so many frames with that "cmd" have come.
    void waitFor(const char* cmd, std::size_t count) {
        simulation.runUntil([&] { return room.count(cmd) == count; });
    }

    Simulation simulation;
    TestChatRoom room{simulation.executor(), simulation};
    ChatUser alice{simulation, "alice", "open sesame"};
};

}  // namespace skein
