#include "tests/chat/ChatTest.h"

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::Contains;

using ChatLinkTest = ChatTest;

TEST_F(ChatLinkTest, reconnectsWithAGrowingDelayThatALoginMakesShortAgain) {
    simulation.finish(room.stop());
    simulation.finish(alice.client.connect(room.url()));
    simulation.runUntil([&] { return alice.attempts() == 1 && !alice.isConnected(); });
    long attempts = 1;
    for (const auto delay : {2'000'000us, 3'000'000us, 4'500'000us, 6'750'000us, 10'125'000us, 15'187'500us,
                             22'781'250us, 30'000'000us, 30'000'000us}) {
        simulation.advance(delay - 1us);
        EXPECT_EQ(alice.attempts(), attempts);
        simulation.advance(1us);
        EXPECT_EQ(alice.attempts(), ++attempts);
        alice.waitUntilDisconnected();
    }
    room.start();
    simulation.advance(30s);
    alice.waitUntilLoggedIn();

    room.cutAll();
    alice.waitUntilDisconnected();
    simulation.advance(2s);
    alice.waitUntilLoggedIn();
    EXPECT_EQ(room.acceptedConnections(), 2);
}

TEST_F(ChatLinkTest, pingsEveryThirtySecondsAndLeavesAServerThatIsSilentForNinety) {
    alice.logIn(room);
    for (std::size_t minute = 1; minute <= 5; ++minute) {
        pass(60s);
        EXPECT_EQ(room.count("ping"), 2 * minute);
    }
    EXPECT_TRUE(alice.isLoggedIn());

    room.goSilent(true);
    pass(89s);
    EXPECT_TRUE(alice.isLoggedIn());
    pass(1s);
    alice.waitUntilDisconnected();
    EXPECT_EQ(room.count("ping"), 12U);
    room.goSilent(false);
    simulation.advance(2s);
    alice.waitUntilLoggedIn();
    EXPECT_THAT(alice.log.lines(), Contains("[Chat] connection lost: the server is silent"));
}

TEST_F(ChatLinkTest, closesAfterTheDelayUnlessThatIsCancelled) {
    alice.logIn(room);
    simulation.finish(alice.client.disconnect(10s));
    pass(9s);
    simulation.finish(alice.client.cancelDisconnect());
    pass(60s);
    EXPECT_TRUE(alice.isLoggedIn());

    simulation.finish(alice.client.disconnect(1s));
    simulation.finish(alice.client.disconnect(20s));
    pass(19s);
    EXPECT_TRUE(alice.isLoggedIn());
    pass(1s);
    alice.waitUntilDisconnected();
    pass(60s);
    EXPECT_EQ(room.acceptedConnections(), 1);
    EXPECT_FALSE(alice.say("bob", "not connected"));
    EXPECT_THAT(alice.history("bob"), testing::IsEmpty());

    simulation.finish(alice.client.checkConnect());
    alice.waitUntilLoggedIn();
    simulation.finish(alice.client.checkConnect());
    simulation.settle();
    EXPECT_EQ(room.acceptedConnections(), 2);

    simulation.finish(alice.client.disconnect());
    simulation.finish(alice.client.connect("ftp://127.0.0.1/"));
    alice.waitUntilDisconnected();
    pass(60s);
    EXPECT_EQ(alice.state().status, ClientStatus::disconnected);
}

TEST_F(ChatLinkTest, ignoresFramesThatMakeNoSenseAndLeavesOverOneThatIsHuge) {
    alice.logIn(room);
    for (const std::string frame :
         {"", "hello", "7", "null", "[1,2]", R"({"no":"cmd"})", R"({"cmd":5})", R"({"cmd":"unheard-of"})",
          R"({"cmd":"newChat","from":"bob","msg":"half")", R"({"cmd":"newChat"})",
          R"({"cmd":"newChat","from":{},"msg":[]})", R"({"cmd":"groupMsg","from":"bob","msg":"where?"})",
          R"({"cmd":"chatHistory","list":"none"})", R"({"cmd":"groupHistory","list":[null,[],{"msg":1}]})",
          R"({"cmd":"friendList"})", R"({"cmd":"loginResp","code":0,"newChatCount":-3,"sessionId":[]})"})
        room.tellAll(frame);
    for (const std::size_t depth : {40, 100'000})
        room.tellAll(R"({"cmd":"newChat","from":"bob","msg":"deep","x":)" + std::string(depth, '[') +
                     std::string(depth, ']') + "}");
    EXPECT_TRUE(simulation.finish(alice.client.getFriendList()));
    EXPECT_TRUE(alice.received.empty());
    EXPECT_TRUE(simulation.finish(alice.talk.conversations("alice")).empty());
    EXPECT_EQ(room.acceptedConnections(), 1);

    room.tellAll(R"({"cmd":"newChat","from":"bob","msg":")" + std::string(ChatLink::maxFrameBytes, 'x') + "\"}");
    alice.waitUntilDisconnected();
    EXPECT_TRUE(alice.received.empty());
    simulation.advance(2s);
    alice.waitUntilLoggedIn();
    // Nor do we send what a server must refuse.
    EXPECT_FALSE(alice.say("bob", "\xFF"));
    EXPECT_FALSE(alice.say("bob", std::string(ChatLink::maxFrameBytes, 'x')));
    EXPECT_THAT(alice.history("bob"), testing::IsEmpty());
    EXPECT_TRUE(alice.isLoggedIn());
}

TEST_F(ChatLinkTest, stopsAtAnyMoment) {
    for (int steps = 0; steps < 60; steps += 2) {
        ChatUser bob(simulation, "bob", "swordfish");
        simulation.finish(bob.client.connect(room.url()));
        int step = 0;
        simulation.runUntil([&] { return step++ >= steps || bob.isLoggedIn(); });
        simulation.finish(bob.client.stop());
        simulation.runUntil([&] { return !room.isOnline("bob"); });
    }
}

}  // namespace
}  // namespace skein
