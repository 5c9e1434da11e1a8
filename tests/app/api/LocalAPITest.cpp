#include "tests/app/api/LocalAPITest.h"

#include "Core/formats/TorrentWriter.h"
#include "app/Command.h"
#include "app/RowJSON.h"
#include "app/api/ChatJSON.h"
#include "app/api/ChatRoutes.h"
#include "app/api/DaemonFile.h"
#include "app/client/DaemonClient.h"
#include "public/common/WholeFile.h"
#include "tests/Core/engine/TestTorrent.h"
#include "tests/support/ScriptedHTTPServer.h"

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace skein {
namespace {

namespace fs = std::filesystem;
namespace json = boost::json;
using testing::HasSubstr;

using Keys = std::set<std::string>;

Keys keysOf(const json::object& object) {
    Keys keys;
    for (const auto& entry : object) keys.emplace(entry.key());
    return keys;
}

/// docs/openapi.json.
class APIDescription {
public:
    const json::object& paths() const { return document_.at("paths").as_object(); }
    /// Of the answer, or of each object of a list.
    Keys answer(const std::string& path) const {
        const json::value& response = paths().at(path).at("get").at("responses").at("200");
        return keysIn(response.at("content").at("application/json").at("schema").as_object());
    }
    Keys schema(std::string_view name) const {
        return keysIn(document_.at("components").at("schemas").at(name).as_object());
    }

private:
    Keys keysIn(const json::object& schema) const {
        if (schema.contains("$ref")) {
            const std::string_view path = schema.at("$ref").as_string();
            return this->schema(path.substr(path.rfind('/') + 1));
        }
        if (schema.contains("items")) return keysIn(schema.at("items").as_object());
        if (!schema.contains("allOf")) return keysOf(schema.at("properties").as_object());
        Keys all;
        for (const json::value& part : schema.at("allOf").as_array()) all.merge(keysIn(part.as_object()));
        return all;
    }

    const json::object document_ = json::parse(asText(readWholeFile(SKEIN_OPENAPI, 1'000'000))).as_object();
};

TEST_F(LocalAPITest, answersOnlyWhoHasTheTokenAndComesFromItself) {
    const HTTPHeader token{"Authorization", "Bearer secret"};
    EXPECT_EQ(ask("GET", "/api/v1/tasks", {}, {token}).status, 200);
    EXPECT_EQ(ask("GET", "/api/v1/tasks", {}, {}).status, 401);
    EXPECT_EQ(ask("GET", "/api/v1/tasks", {}, {token, {"Origin", "http://evil.example"}}).status, 403);
    EXPECT_EQ(ask("GET", "/api/v1/tasks", {}, {token, {"Host", "evil.example"}}).status, 403);
}

TEST_F(LocalAPITest, offersTheListAndTheCommands) {
    EXPECT_EQ(asText(ask("GET", "/api/v1/tasks").body), "[]");
    for (const char* const other : {"no link", "ftp://127.0.0.1/a", "file:///etc/passwd", "http://", "http://a b/"}) {
        const HTTPResponse refused = ask("POST", "/api/v1/tasks", R"({"source":")" + std::string(other) + R"("})");
        EXPECT_EQ(refused.status, 400) << other;
    }
    EXPECT_TRUE(manager.tasks().empty());
    manager.addHTTPDownload("no link");
    const json::object added = json::parse(asText(ask("GET", "/api/v1/tasks").body)).at(0).as_object();
    EXPECT_EQ(added.at("number").as_int64(), 1);
    const std::string task = "/api/v1/tasks/" + std::string(added.at("infoHash").as_string());
    EXPECT_EQ(objectIn(ask("PATCH", task, R"({"category":"book","notes":"n"})")).at("category"), "book");
    EXPECT_EQ(objectIn(ask("GET", task)).at("notes"), "n");
    for (const char* const half : {R"({"notes":"m","category":"spell"})", R"({"category":"video","notes":1})",
                                   R"({"notes":"m","accelerateEnabled":"yes"})", R"({"notes":"\ud800"})"})
        EXPECT_EQ(ask("PATCH", task, half).status, 400) << half;
    EXPECT_EQ(objectIn(ask("GET", task)).at("category"), "book");
    EXPECT_EQ(objectIn(ask("GET", task)).at("notes"), "n");
    manager.setNotes(manager.tasks().front(), "\xFF\xED\xA0\x80\x01\"");
    EXPECT_EQ(objectIn(ask("GET", task)).at("notes"), "\uFFFD\uFFFD\uFFFD\uFFFD\x01\"");
    for (const char* const nonsense : {"", "[]", "{", R"({"source":1})", "{}"})
        EXPECT_EQ(ask("POST", "/api/v1/tasks", nonsense).status, 400) << nonsense;
    EXPECT_THAT(asText(ask("POST", "/api/v1/tasks", R"({"source":"magnet:?dn=x"})").body),
                HasSubstr("missing info hash"));
    EXPECT_EQ(ask("GET", "/api/v1/tasks/none").status, 404);
    EXPECT_EQ(ask("GET", "/nowhere").status, 404);
    EXPECT_EQ(ask("PUT", "/api/v1/tasks").status, 405);
    EXPECT_EQ(ask("DELETE", task + "?deleteFiles=true").status, 200);
    EXPECT_EQ(objectIn(ask("GET", "/api/v1/status")).at("tasks").as_int64(), 0);
    ask("POST", "/api/v1/stop");
    simulation.runUntil([&] { return stopsAsked == 1; });
}

TEST_F(LocalAPITest, answersAChangeWhenItIsOnTheDisk) {
    const fs::path list = host.home.path() / "tasks.json";
    const auto saved = [&] { return std::string(asText(readWholeFile(list, 1U << 20U))); };
    for (const std::string letter : {"a", "b", "c"}) {
        std::string hash;
        while (hash.size() < 40) hash += letter;
        EXPECT_EQ(ask("POST", "/api/v1/tasks", R"({"source":"magnet:?xt=urn:btih:)" + hash + R"("})").status, 200);
        EXPECT_THAT(saved(), HasSubstr(hash));
        EXPECT_EQ(ask("PATCH", "/api/v1/tasks/" + hash, R"({"notes":"about )" + letter + R"("})").status, 200);
        EXPECT_THAT(saved(), HasSubstr("about " + letter));
        EXPECT_EQ(ask("POST", "/api/v1/tasks/" + hash + "/pause").status, 200);
    }
    fs::remove(list);
    fs::create_directories(list / "in the way");
    const std::string task = "/api/v1/tasks/" + std::string(40, 'a');
    EXPECT_EQ(ask("PATCH", task, R"({"notes":"lost"})").status, 507);
    fs::remove_all(list);
    EXPECT_EQ(ask("DELETE", task).status, 200);
    EXPECT_THAT(saved(), testing::Not(HasSubstr(std::string(40, 'a'))));
}

TEST_F(LocalAPITest, fetchesATorrentThatIsNamedByItsAddressAndTellsWhatThereIsToSee) {
    TestTorrent torrent(16384, {{"a", 20'000}});
    torrent.metaInfo->name = "t";
    const Bytes data = TorrentWriter::write(*torrent.metaInfo);
    ScriptedHTTPServer web(simulation.executor(), [&](const SeenHTTPRequest& seen) {
        return seen.target.starts_with("/t.torrent") ? HTTPReply::text(asText(data)) : HTTPReply::text("", 404);
    });
    const auto add = [&](const std::string& target) {
        return ask("POST", "/api/v1/tasks", R"({"source":")" + web.url(target) + R"("})");
    };
    const json::object task = objectIn(add("/t.torrent?key=1"));
    EXPECT_EQ(task.at("name"), "t");
    EXPECT_EQ(task.at("downloadType"), "torrent");
    EXPECT_EQ(task.at("folder").as_string(), host.downloads.path().string());
    EXPECT_FALSE(task.at("isPrivate").as_bool());
    EXPECT_EQ(task.at("uploadedBytes").as_int64(), 0);
    EXPECT_TRUE(task.at("eta").is_null());
    EXPECT_TRUE(task.at("trackerTiers").is_array());
    const json::object& file = task.at("files").as_array().at(0).as_object();
    EXPECT_EQ(file.at("location").as_string(),
              (host.downloads.path() / std::string(file.at("path").as_string())).string());
    EXPECT_FALSE(file.at("isAvailable").as_bool());

    const APIDescription document;
    EXPECT_EQ(keysOf(task), document.answer("/api/v1/tasks/{task}"));
    EXPECT_EQ(keysOf(file), document.schema("TaskFile"));
    EXPECT_EQ(keysOf(toJSON(PeerRuntimeInfo())), document.schema("Peer"));
    EXPECT_EQ(keysOf(toJSON(TrackerRuntimeInfo())), document.schema("Tracker"));
    const json::value list = json::parse(asText(ask("GET", "/api/v1/tasks").body));
    EXPECT_EQ(keysOf(list.at(0).as_object()), document.answer("/api/v1/tasks"));
    for (const std::string path : {"/api/v1/status", "/api/v1/account"})
        EXPECT_EQ(keysOf(objectIn(ask("GET", path))), document.answer(path)) << path;
    EXPECT_EQ(keysOf(asJSON(TalkConversation())), document.answer("/api/v1/chat/talks"));
    const HTTPResponse missing = add("/none.torrent");
    EXPECT_EQ(missing.status, 400);
    EXPECT_THAT(asText(missing.body), HasSubstr("HTTP 404"));
    EXPECT_EQ(manager.tasks().size(), 1U);
    simulation.finish(web.stop());
}

TEST_F(LocalAPITest, handsOutLongListsOfFilesInPages) {
    TestTorrent::Files names;
    for (std::size_t i = 0; i <= TaskRoutes::filesPerPage; ++i) names.emplace_back("many/" + std::to_string(i), 1);
    TestTorrent many(16384, names);
    many.metaInfo->name = "many";
    const auto added = simulation.finish(manager.addTorrentFile(TorrentWriter::write(*many.metaInfo)));
    const std::string task = "/api/v1/tasks/" + added->infoHash;
    const json::object details = objectIn(ask("GET", task));
    EXPECT_EQ(details.at("fileCount"), 1001);
    EXPECT_EQ(details.at("files").as_array().size(), 1000U);
    const auto page = [&](const std::string& query) { return objectIn(ask("GET", task + "/files" + query)); };
    EXPECT_EQ(page("").at("files"), details.at("files"));
    EXPECT_EQ(page("?offset=1000&limit=7").at("files").as_array().at(0).at("path"), "many/1000");
    EXPECT_EQ(page("?offset=999&limit=99999").at("files").as_array().size(), 2U);
    EXPECT_EQ(page("?offset=999&limit=1").at("files").as_array().size(), 1U);
    const json::object beyond = page("?offset=18446744073709551615");
    EXPECT_TRUE(beyond.at("files").as_array().empty());
    EXPECT_EQ(beyond.at("fileCount"), 1001);
    EXPECT_EQ(ask("GET", task + "/files?offset=-1").status, 400);
}

TEST_F(LocalAPITest, isDescribedRouteByRoute) {
    EngineHost engine(host.home.path() / "chatting", LocalBinding("127.0.0.1"));
    ChatHost chat(engine, center);
    ChatRoutes chatRoutes(chat, {});
    chatRoutes.addTo(api.router());
    Keys offered;
    for (const Router::Route& route : api.router().routes()) offered.insert(route.method + " " + route.path);
    Keys described;
    const APIDescription document;
    for (const auto& path : document.paths())
        for (const auto& method : path.value().as_object())
            if (method.key() != "parameters")
                described.insert(boost::to_upper_copy(std::string(method.key())) + " " + std::string(path.key()));
    EXPECT_EQ(offered, described);
}

TEST(APIGuard, letsInWhoHasTheTokenAndAsksForUsByAddressOrAsLocalhost) {
    const APIGuard guard("secret", "0.0.0.0", 7070);
    const auto statusFor = [&](const std::string& host, const std::string& origin = {},
                               const std::string& token = "Bearer secret") {
        const auto refusal =
            guard.refusalOf({.headers = {{"authorization", token}, {"host", host}, {"origin", origin}}});
        return refusal ? refusal->status : 200;
    };
    for (const char* const wrong : {"", "Bearer secre", "Bearer secret1", "Bearer ", "Basic secret"})
        EXPECT_EQ(statusFor("localhost:7070", {}, wrong), 401) << wrong;
    for (const char* const wrong : {"http://evil.example", "null", "https://localhost:7070", "http://localhost:1"})
        EXPECT_EQ(statusFor("localhost:7070", wrong), 403) << wrong;
    for (const char* const ours : {"192.168.1.5:7070", "[2001:db8::1]:7070", "localhost:7070", "0.0.0.0:7070"})
        EXPECT_EQ(statusFor(ours), 200) << ours;
    for (const char* const wrong : {"evil.example:7070", "192.168.1.5:7071", "192.168.1.5", "2001:db8::1:7070",
                                    "[192.168.1.5]:7070", "[]:7070", ":7070", ""})
        EXPECT_EQ(statusFor(wrong), 403) << wrong;
    EXPECT_EQ(statusFor("192.168.1.5:7070", "http://192.168.1.5:7070"), 200);
    const auto isLetInByQuery = [&](const char* path, bool isUpgrade) {
        return !guard.refusalOf({.path = path,
                                 .query = {{"token", "secret"}},
                                 .headers = {{"host", "localhost:7070"}},
                                 .isUpgrade = isUpgrade});
    };
    EXPECT_TRUE(isLetInByQuery("/api/v1/events", true));
    EXPECT_FALSE(isLetInByQuery("/api/v1/events", false));
    EXPECT_FALSE(isLetInByQuery("/api/v1/tasks", true));
    EXPECT_EQ(statusFor("192.168.1.5:7070", "http://192.168.1.6:7070"), 403);
    const APIGuard loopback("secret", "127.0.0.1", 7070);
    EXPECT_TRUE(loopback.refusalOf({.headers = {{"authorization", "Bearer secret"}, {"host", "192.168.1.5:7070"}}}));
    EXPECT_EQ(DaemonAddress::reachable("0.0.0.0"), "127.0.0.1");
    EXPECT_EQ(DaemonAddress::reachable("::"), "::1");
    EXPECT_EQ(DaemonAddress::reachable("192.168.1.5"), "192.168.1.5");
}

TEST(DaemonFile, isForOneDaemonAHomeAndGoesWithIt) {
    const TemporaryFolder home;
    EXPECT_EQ(DaemonAddress::find(home.path()), std::nullopt);
    {
        DaemonFile claim(home.path());
        claim.publish({"::1", 7070, 42, "t"});
        EXPECT_EQ(DaemonAddress::find(home.path())->url(), "http://[::1]:7070/");
        EXPECT_EQ(fs::status(home.path() / "daemon.json").permissions(),
                  fs::perms::owner_read | fs::perms::owner_write);
        EXPECT_THROW(DaemonFile second(home.path()), CommandFailure);
    }
    EXPECT_FALSE(fs::exists(home.path() / "daemon.json"));
    replaceWholeFile(home.path() / "daemon.json", toBytes(R"({"address":"::1","port":1,"pid":1,"token":"t"})"));
    EXPECT_EQ(DaemonAddress::find(home.path()), std::nullopt) << "left behind by one that was killed";
}

TEST(ResolveTask, takesHashesPrefixesAndNumbers) {
    const json::value list = {{{"infoHash", "aaaa1111"}, {"number", 1}},
                              {{"infoHash", "aaaa2222"}, {"number", 4}},
                              {{"infoHash", "1234bbbb"}, {"number", 1234}}};
    const auto resolved = [&](const std::string& name) { return resolveTask(list.as_array(), name); };
    EXPECT_EQ(resolved("aaaa2"), "aaaa2222");
    EXPECT_EQ(resolved("4"), "aaaa2222");
    EXPECT_EQ(resolved("#4"), "aaaa2222");
    EXPECT_EQ(resolved("1234"), "1234bbbb");
    EXPECT_EQ(resolved("#1234"), "1234bbbb");
    for (const char* const wrong : {"aaaa", "aaa", "0", "3", "", "bbbb", "#", "#aaaa1111", "-1", "1a"})
        EXPECT_THROW(resolved(wrong), CommandFailure) << wrong;
}

}  // namespace
}  // namespace skein
