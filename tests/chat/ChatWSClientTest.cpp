#include "chat/ChatFrame.h"
#include "tests/chat/ChatTest.h"

#include <boost/json/serialize.hpp>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

class ChatWSClientTest : public ChatTest {
protected:
    ChatUser bob{simulation, "bob", "swordfish"};
};

TEST_F(ChatWSClientTest, sendsEachRequestToTheLetter) {
    alice.logIn(room);
    const auto at = [](std::int64_t milliseconds) { return Clock::WallTime(std::chrono::milliseconds(milliseconds)); };
    ChatWSClient& client = alice.client;
    EXPECT_TRUE(simulation.finish(client.sendChat("text", "bob", "hi \"you\" 好")));
    EXPECT_TRUE(simulation.finish(client.getChatHistory("bob", at(5), at(1'767'225'600'000))));
    EXPECT_TRUE(simulation.finish(client.readChat("bob", at(7000))));
    EXPECT_TRUE(simulation.finish(client.getFriendList()));
    EXPECT_TRUE(simulation.finish(client.addFriend("bob")));
    EXPECT_TRUE(simulation.finish(client.deleteFriend("bob")));
    EXPECT_TRUE(simulation.finish(client.joinGroup("grp_magnet")));
    EXPECT_TRUE(simulation.finish(client.sendGroupMsg("grp_magnet", 2, "all")));
    EXPECT_TRUE(simulation.finish(client.getGroupList()));
    EXPECT_TRUE(simulation.finish(client.getGroupHistory("grp_magnet", at(9), 20)));
    EXPECT_TRUE(simulation.finish(client.sendJSON({{"seq", "mine"}, {"cmd", "x"}, {"y", 1}})));
    pass(30s);
    EXPECT_TRUE(simulation.finish(client.sendLogout()));
    waitFor("logout", 1);
    EXPECT_THAT(
        room.frames(),
        ElementsAre(
            R"({"cmd":"login","user":"alice","pass":"open sesame","device":"device-alice","APNsToken":"","bundId":"skein",)"
            R"("sandbox":false,"osVer":"Linux 6","termType":"desktop","softVer":"1.2","codeVer":"1","seq":1})",
            R"({"cmd":"sendChat","to":"bob","type":"text","msg":"hi \"you\" 好","bundId":"skein","seq":2})",
            R"({"cmd":"getChatHistory","to":"bob","before":1767225600000,"limit":100,"seq":3})",
            R"({"cmd":"readChat","to":"bob","readTime":7000,"seq":4})", R"({"cmd":"getFriendList","seq":5})",
            R"({"cmd":"addFriend","friendId":"bob","seq":6})", R"({"cmd":"deleteFriend","friendId":"bob","seq":7})",
            R"({"cmd":"joinGroup","groupId":"grp_magnet","seq":8})",
            R"({"cmd":"sendGroupMsg","groupId":"grp_magnet","level":2,"msg":"all","seq":9})",
            R"({"cmd":"getGroupList","seq":10})",
            R"({"cmd":"getGroupHistory","groupId":"grp_magnet","before":9,"limit":20,"seq":11})",
            R"({"cmd":"x","y":1,"seq":12})", R"({"cmd":"ping","seq":13})", R"({"cmd":"logout","seq":14})"));
    EXPECT_EQ(ChatWSClient::urlOf("10.0.0.1", "8011"), "ws://10.0.0.1:8011/ws");
    EXPECT_EQ(ChatWSClient::urlOf("::1", "8010"), "ws://[::1]:8020/ws");
}

TEST_F(ChatWSClientTest, signsInAndTellsSo) {
    EXPECT_FALSE(simulation.finish(alice.client.getFriendList()));
    alice.logIn(room);
    EXPECT_THAT(alice.statuses, ElementsAre("connecting ", "connected ", "loggedIn status:success"));
    EXPECT_EQ(alice.settings.text("RemoteService.myId"), "alice");
    EXPECT_EQ(alice.settings.text("RemoteService.sessionId"), "session-1");
    EXPECT_TRUE(alice.state().active);

    room.refuseLogins(true);
    simulation.finish(bob.client.connect(room.url()));
    EXPECT_FALSE(simulation.finish(bob.client.waitForLogin(30s)));
    EXPECT_THAT(bob.statuses, ElementsAre("connecting ", "connected ", "refused status:fail"));
    EXPECT_FALSE(bob.say("alice", "let me in"));
    pass(299s);
    EXPECT_EQ(room.count("login"), 2U);
    pass(1s);
    waitFor("login", 3);
    room.refuseLogins(false);
    simulation.runUntil([&] { return bob.statuses.size() == 4; });
    simulation.finish(bob.client.checkConnect());
    EXPECT_TRUE(simulation.finish(bob.client.waitForLogin(30s)));
    EXPECT_EQ(room.acceptedConnections(), 2);

    ChatUser nobody(simulation, "", "");
    simulation.finish(nobody.client.connect(room.url()));
    EXPECT_FALSE(simulation.finish(nobody.client.waitForLogin(30s)));
    pass(60s);
    EXPECT_EQ(room.acceptedConnections(), 2);
    nobody.identity.value = {"alice", "open sesame", "another device"};
    simulation.finish(nobody.client.checkConnect());
    EXPECT_TRUE(simulation.finish(nobody.client.waitForLogin(30s)));
    for (const ChatUser* user : {&alice, &bob, &nobody})
        EXPECT_EQ(user->log.count("sesame") + user->log.count("swordfish"), 0);
}

TEST_F(ChatWSClientTest, plansOneLoginHoweverOftenAServerRefuses) {
    room.refuseLogins(true);
    simulation.finish(alice.client.connect(room.url()));
    EXPECT_FALSE(simulation.finish(alice.client.waitForLogin(30s)));
    for (int i = 0; i < 20; ++i) room.tellAll(R"({"cmd":"loginResp","code":403})");
    pass(1s);
    EXPECT_THAT(alice.statuses, ElementsAre("connecting ", "connected ", "refused status:fail"));
    for (int i = 0; i < 20; ++i)
        for (const std::string code : {"200", "403"}) room.tellAll(R"({"cmd":"loginResp","code":)" + code + "}");
    simulation.runUntil([&] { return alice.statuses.size() == 43; });
    EXPECT_EQ(room.count("login"), 1U);
    pass(301s);
    EXPECT_EQ(room.count("login"), 2U);
    pass(301s);
    EXPECT_EQ(room.count("login"), 3U);
}

TEST_F(ChatWSClientTest, losesNothingAndDoublesNothingOverARestartOfTheServer) {
    alice.logIn(room);
    bob.logIn(room);
    EXPECT_TRUE(alice.say("bob", "one"));
    bob.waitFor("one");
    EXPECT_TRUE(bob.say("alice", "two"));
    alice.waitFor("two");

    simulation.finish(room.stop());
    simulation.runUntil([&] { return !alice.isConnected() && !bob.isConnected(); });
    EXPECT_FALSE(alice.say("bob", "into the void"));
    room.start();
    simulation.finish(alice.client.checkConnect());
    alice.waitUntilLoggedIn();
    // Bob is away.
    EXPECT_TRUE(alice.say("bob", "three"));
    EXPECT_TRUE(alice.say("bob", "three"));
    waitFor("sendChat", 4);
    pass(2s);
    simulation.runUntil([&] { return bob.timesReceived("three") == 2; });
    EXPECT_TRUE(bob.received.back().isFromHistory);
    EXPECT_TRUE(bob.say("alice", "four"));
    alice.waitFor("four");

    const std::vector<std::string> all{"alice: one", "bob: two", "alice: three", "alice: three", "bob: four"};
    EXPECT_EQ(alice.history("bob"), all);
    EXPECT_EQ(bob.history("alice"), all);
    // The histories tell everything again, our own messages with the server's time.
    const auto tomorrow = simulation.wallNow() + 24h;
    for (const auto& [user, partner] : {std::pair(&alice, "bob"), {&bob, "alice"}}) {
        EXPECT_EQ(simulation.finish(user->client.getChatHistory(partner, {}, tomorrow)).value().size(), 5U);
        EXPECT_EQ(user->history(partner), all);
    }
    for (const ChatUser* user : {&alice, &bob}) {
        EXPECT_EQ(user->received.size(), all.size()) << "each message once, those of the user's own included";
        for (const ChatMessageReceived& one : user->received) EXPECT_GT(one.message.id, 0);
    }
}

TEST_F(ChatWSClientTest, tellsOnceWhatAServerBothPushesAndCounts) {
    TestChatRoom pushing(simulation.executor(), simulation, {.pushesWaiting = true});
    alice.logIn(pushing);
    for (const char* text : {"a", "b|c\nd"}) EXPECT_TRUE(alice.say("bob", text));
    simulation.runUntil([&] { return pushing.count("sendChat") == 2; });
    bob.logIn(pushing);
    EXPECT_EQ(bob.state().newChatCount, 1);
    simulation.runUntil([&] { return pushing.count("getChatHistory") == 1; });
    EXPECT_TRUE(simulation.finish(bob.client.getGroupList()));
    EXPECT_THAT(bob.history("alice"), ElementsAre("alice: a", "alice: b|c\nd"));
    EXPECT_EQ(bob.received.size(), 2U);
    EXPECT_EQ(simulation.finish(bob.talk.conversations("bob")).front().unread, 2);
    simulation.finish(pushing.stop());
}

TEST_F(ChatWSClientTest, givesEachAnswerToItsQuestion) {
    TestChatRoom plain(simulation.executor(), simulation, {.repeatsSeq = false});
    alice.logIn(plain);
    EXPECT_TRUE(simulation.finish(alice.client.tellGroup("grp_magnet", 0, "hello")));
    // Side by side, and without anything but the group's name to tell them apart.
    const auto ask = [this](const std::string& group) {
        return simulation.begin(alice.client.getGroupHistory(group, simulation.wallNow() + 1h, 10));
    };
    auto empty = ask("grp_other");
    auto full = ask("grp_magnet");
    EXPECT_THAT(simulation.finish(std::move(empty)).value(), ElementsAre());
    EXPECT_THAT(simulation.finish(std::move(full)).value(), ElementsAre(testing::Field(&ChatMessage::text, "hello")));
    EXPECT_EQ(simulation.finish(alice.client.addFriend("nobody")).value().at("code"), 404);

    plain.goSilent(true);
    const auto unanswered = ask("grp_other");
    full = ask("grp_magnet");
    simulation.runUntil([&] { return plain.count("getGroupHistory") == 4; });
    plain.tellAll(R"({"cmd":"groupHistory","groupId":"grp_magnet","list":[]})");
    EXPECT_TRUE(simulation.finish(std::move(full)));
    EXPECT_FALSE(Simulation::hasEnded(unanswered));

    auto friends = simulation.begin(alice.client.getFriendList());
    pass(14s);
    EXPECT_FALSE(Simulation::hasEnded(friends));
    pass(1s);
    EXPECT_TRUE(Simulation::hasEnded(friends));
    friends = simulation.begin(alice.client.getFriendList());
    simulation.runUntil([&] { return plain.count("getFriendList") == 2; });
    plain.cutAll();
    EXPECT_FALSE(simulation.finish(std::move(friends)));
    simulation.finish(plain.stop());
}

TEST_F(ChatWSClientTest, joinsAGroupOnceToTellItThings) {
    const auto tell = [this](const std::string& group) {
        const auto answer = simulation.finish(alice.client.tellGroup(group, 1, "hello"));
        return answer && chatFrame::isSuccess(*answer);
    };
    alice.logIn(room);
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(tell("grp_magnet"));
    EXPECT_EQ(room.count("joinGroup"), 1U);
    room.putOut("alice", "grp_magnet");
    EXPECT_TRUE(tell("grp_magnet"));
    EXPECT_EQ(room.count("joinGroup"), 2U);
    EXPECT_FALSE(tell("grp_other"));
    EXPECT_EQ(alice.timesReceived("hello"), 4) << "what was refused is not shown as said";
    EXPECT_EQ(alice.history("grp_magnet", true).size(), 4U);
    EXPECT_TRUE(alice.history("grp_other", true).empty());
}

TEST_F(ChatWSClientTest, takesNoLateAnswerFromAServerThatNumbersItsAnswers) {
    alice.logIn(room);
    EXPECT_TRUE(simulation.finish(alice.client.getFriendList()));
    room.goSilent(true);
    simulation.begin(alice.client.getFriendList());
    pass(16s);
    auto answer = simulation.begin(alice.client.getFriendList());
    waitFor("getFriendList", 3);
    room.tellAll(R"({"cmd":"friendList","list":["late"],"seq":3})");
    room.tellAll(R"({"cmd":"friendList","list":["timely"],"seq":4})");
    EXPECT_EQ(boost::json::serialize(simulation.finish(std::move(answer)).value()),
              R"({"cmd":"friendList","list":["timely"],"seq":4})");
}

TEST_F(ChatWSClientTest, asksTheGroupOnceToSpeedADownloadUp) {
    bob.logIn(room);
    EXPECT_TRUE(simulation.finish(bob.client.joinGroup("grp_magnet")));
    const AccelerateMessage message{"film", "alice", "magnet:?xt=urn:btih:1", 700};
    // It is asked for before there is a connection, which then comes, breaks and comes again, and tells of its login
    // twice.
    auto sent = simulation.begin(alice.client.sendAccelerateMessage(message));
    simulation.settle();
    room.goSilent(true);
    simulation.finish(alice.client.connect(room.url()));
    waitFor("login", 2);
    room.tellAll(R"({"cmd":"loginResp","code":200})");
    waitFor("joinGroup", 2);
    room.goSilent(false);
    room.cutAll();
    simulation.runUntil([&] { return !alice.isConnected() && !bob.isConnected(); });
    pass(2s);
    EXPECT_TRUE(simulation.finish(std::move(sent)));
    room.tellAll(R"({"cmd":"loginResp","code":200})");
    pass(20s);
    EXPECT_EQ(room.count("sendGroupMsg"), 1U);
    bob.waitFor(message.orderedJSONString());
    EXPECT_THAT(bob.history("grp_magnet", true), ElementsAre("alice: " + message.orderedJSONString()));

    simulation.finish(alice.client.disconnect());
    alice.waitUntilDisconnected();
    sent = simulation.begin(alice.client.sendAccelerateMessage(message));
    pass(61s);
    EXPECT_FALSE(simulation.finish(std::move(sent)));
}

}  // namespace
}  // namespace skein
