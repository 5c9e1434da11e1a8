#include "public/common/SettingsStore.h"
#include "service/ServiceAccount.h"
#include "tests/app/ProgramTest.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/ScriptedHTTPServer.h"
#include "tests/support/TestChatRoom.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <future>

namespace skein {
namespace {

namespace fs = std::filesystem;
namespace json = boost::json;
using testing::HasSubstr;
using testing::Not;

/// Alice, whose home it is, and Bob, with a chat server that runs on a thread of its own.
class ChatCommandTest : public ProgramTest {
protected:
    ChatCommandTest() {
        signIn(home.path(), "alice", "open sesame");
        signIn(bobsHome.path(), "bob", "swordfish");
    }
    ~ChatCommandTest() override {
        asio::co_spawn(thread, files.stop(), asio::use_future).get();
        asio::co_spawn(thread, room.stop(), asio::use_future).get();
    }

    void signIn(const std::string& at, const std::string& user, const std::string& credential) {
        RecordingLogger log;
        SettingsStore settings(fs::path(at) / "settings.db", log);
        settings.set(ServiceAccount::userIDKey, user);
        settings.set(ServiceAccount::credentialKey, credential);
        settings.set("chatServer", "127.0.0.1:" + std::to_string(room.port()));
    }
    /// Whatever concerns the server is done on its thread.
    template <class Work>
    auto atServer(Work work) {
        return asio::post(thread, std::packaged_task<std::invoke_result_t<Work>()>(std::move(work))).get();
    }
    std::size_t count(const std::string& cmd) {
        return atServer([this, cmd] { return room.count(cmd); });
    }
    /// What Alice's command prints; it succeeds.
    std::string chat(std::vector<std::string> words) const {
        words.insert(words.begin(), "chat");
        const ProgramRun::Result result = skein(std::move(words));
        EXPECT_EQ(result.status, 0) << result.err;
        return result.out;
    }
    json::array list(std::vector<std::string> words) const {
        words.emplace_back("--json");
        return json::parse(chat(std::move(words))).as_array();
    }
    void bobSays(const std::string& text) const {
        EXPECT_EQ(ProgramRun({SKEIN_PROGRAM, "--home", bobsHome.path(), "chat", "send", "alice", text}).finish().status,
                  0);
    }
    void waitForLine(const ProgramRun& run, const std::string& text) const {
        waitUntil([&] { return run.out().find(text) != std::string::npos; });
    }

    TemporaryFolder bobsHome;
    RealClock clock;
    asio::thread_pool thread{1};
    TestChatRoom room{thread.get_executor(), clock};
    ScriptedHTTPServer files{thread.get_executor(), [](const SeenHTTPRequest& request) {
                                 return HTTPReply::text("a picture", request.target == "/photo" ? 200 : 404);
                             }};
};

TEST_F(ChatCommandTest, listensThoughTheServerLeavesTheFriendListUnanswered) {
    atServer([this] { room.ignore("getFriendList"); });
    const ProgramRun listener(line({"chat", "listen"}));
    waitUntil([this] { return atServer([this] { return room.isOnline("alice"); }); });
    bobSays("are you there?");
    waitForLine(listener, "bob → alice: are you there?");
    // From another process of hers.
    for (const char* const text : {"yes", "here"}) chat({"send", "bob", text});
    waitForLine(listener, "alice → bob: here");
    EXPECT_THAT(listener.out(), HasSubstr("alice → bob: yes"));
}

TEST_F(ChatCommandTest, keepsFriendsGroupsAndUnreadCountsThroughTheDaemon) {
    const auto running = startDaemon();
    const ProgramRun window(line({"chat", "listen", "--json"}));
    waitUntil([this] { return atServer([this] { return room.isOnline("alice"); }); });

    chat({"add-friend", "bob"});
    EXPECT_EQ(chat({"friends"}), "bob\n");
    chat({"delete-friend", "bob"});
    EXPECT_EQ(chat({"friends"}), "");
    EXPECT_THAT(skein({"chat", "add-friend", "nobody"}).err, HasSubstr("the chat server does not add that user"));

    EXPECT_EQ(chat({"groups"}), "");
    chat({"join", "grp_magnet"});
    EXPECT_EQ(chat({"groups"}), "grp_magnet\n");
    for (const char* const text : {"one", "two", "three"}) chat({"group", "grp_magnet", text});
    EXPECT_EQ(count("joinGroup"), 1U);
    EXPECT_THAT(skein({"chat", "join", "grp_other"}).err, HasSubstr("does not let us into that group"));

    chat({"send", "bob", "hello"});
    waitForLine(window, R"("text":"hello")");
    for (const char* const text : {"a", "b", "c"}) bobSays(text);
    waitForLine(window, R"("text":"c")");
    EXPECT_THAT(chat({"conversations"}), HasSubstr("3 unread  bob  bob: c"));
    chat({"read", "bob"});
    waitForLine(window, R"("type":"chatRead","id":"bob")");
    EXPECT_EQ(count("readChat"), 1U);
    EXPECT_THAT(chat({"conversations"}), HasSubstr("0 unread  bob  bob: c"));
    chat({"read", "--group", "grp_magnet"});
    for (const json::value& talk : list({"conversations"})) EXPECT_EQ(talk.at("unread"), 0);
    EXPECT_EQ(skein({"chat", "read", ""}).status, 1);
}

TEST_F(ChatCommandTest, pagesBackIntoWhatOnlyTheServerHas) {
    for (const char* const text : {"1", "2", "3", "4"}) bobSays(text);
    const json::array newest = list({"history", "bob", "--limit", "2"});
    ASSERT_EQ(newest.size(), 2U);
    EXPECT_EQ(newest[0].at("text"), "3");
    const auto result = skein({"chat", "history", "bob", "--limit", "2"});
    const std::string before = "--before ";
    ASSERT_THAT(result.err, HasSubstr(before));
    std::string time = result.err.substr(result.err.find(before) + before.size());
    time.pop_back();
    fs::remove(home.path() / fs::path("talk.db"));
    const json::array older = list({"history", "bob", "--before", time});
    ASSERT_EQ(older.size(), 2U);
    EXPECT_EQ(older[0].at("text"), "1");
    EXPECT_EQ(older[1].at("text"), "2");
    std::erase(time, '.');
    const auto asked = atServer([this] { return room.frames(); });
    EXPECT_THAT(asked, testing::Contains(HasSubstr(R"("cmd":"getChatHistory","to":"bob","before":)" + time + ",")));
    EXPECT_EQ(list({"history", "bob", "--before", "2001-02-03 04:05"}).size(), 0U);
    EXPECT_EQ(skein({"chat", "history", "bob", "--before", "yesterday"}).status, 2);
}

TEST_F(ChatCommandTest, showsWhatIsStoredWhileTheServerKeepsSilent) {
    const auto running = startDaemon();
    waitUntil([this] { return atServer([this] { return room.isOnline("alice"); }); });
    chat({"send", "bob", "hello"});
    atServer([this] { room.goSilent(true); });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(list({"history", "bob"}).size(), 1U);
    chat({"read", "bob"});
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

TEST_F(ChatCommandTest, savesTheMediaOfAMessageBesideWhatIsThere) {
    const ProgramRun listener(line({"chat", "listen"}));
    waitUntil([this] { return atServer([this] { return room.isOnline("alice"); }); });
    const auto tell = [this](const std::string& target) {
        const json::object media{
            {"type", "image"}, {"name", "../../photo.jpg"}, {"size", 9}, {"url", files.url(target)}};
        const json::object frame{{"cmd", "newChat"}, {"from", "bob"}, {"msg", "look"}, {"media", media}};
        atServer([this, text = json::serialize(frame)] { room.tellAll(text); });
    };
    tell("/photo");
    waitForLine(listener, "look [image ../../photo.jpg, 9 B, message 1]");
    tell("/gone");
    waitForLine(listener, "message 2]");
    write("photo.jpg", "mine");

    // The sender chose the address: it may not lead into the user's network, unless the user says so.
    EXPECT_THAT(skein({"chat", "save-media", "1", "--dir", folder.path()}).err, HasSubstr("The address is not public"));
    EXPECT_EQ(atServer([this] { return files.requests().size(); }), 0U);
    EXPECT_EQ(chat({"save-media", "1", "--dir", folder.path(), "--allow-local-peers"}),
              path("photo (1).jpg") + "  9 B\n");
    EXPECT_EQ(asText(readWholeFile(path("photo (1).jpg"), 100)), "a picture");
    EXPECT_EQ(asText(readWholeFile(path("photo.jpg"), 100)), "mine");
    EXPECT_THAT(skein({"chat", "save-media", "2", "--dir", folder.path(), "--allow-local-peers"}).err,
                HasSubstr("HTTP 404"));
    EXPECT_THAT(skein({"chat", "save-media", "3"}).err, HasSubstr("nothing to save"));
    EXPECT_THAT(skein({"chat", "save-media", "1", "--dir", path("none")}).err, HasSubstr("is no folder"));
    EXPECT_EQ(std::distance(fs::directory_iterator(folder.path()), {}), 2);
}

}  // namespace
}  // namespace skein
