#include "app/Command.h"
#include "app/api/DaemonFile.h"
#include "app/api/LocalAPI.h"
#include "app/client/DaemonClient.h"
#include "app/client/TaskTable.h"
#include "public/common/HTTPClient.h"
#include "public/common/WholeFile.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

namespace skein {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
namespace json = boost::json;
using testing::HasSubstr;

class SilentNotifier final : public CompletionNotifier {
public:
    void sendCompletionNotification(std::string) override {}
};

class LocalAPITest : public testing::Test {
protected:
    LocalAPITest() {
        simulation.finish(manager.start());
        api.listen("127.0.0.1", 0, "secret");
    }
    ~LocalAPITest() override {
        simulation.finish(api.stop());
        simulation.finish(manager.stop());
        client.stop();
    }

    HTTPResponse ask(const std::string& method, const std::string& path, const std::string& body = {},
                     std::vector<HTTPHeader> headers = {{"Authorization", "Bearer secret"}}) {
        HTTPRequest request;
        request.method = method;
        request.url = "http://127.0.0.1:" + std::to_string(api.port()) + path;
        request.headers = std::move(headers);
        request.body = toBytes(body);
        request.usesProxy = false;
        return simulation.finish(client.fetch(std::move(request)));
    }
    static json::object objectIn(const HTTPResponse& response) {
        return json::parse(asText(response.body)).as_object();
    }

    Simulation simulation;
    RecordingLogger log;
    SecureRandom random;
    MsgCenter center;
    TemporaryFolder home;
    SettingsStore settings{home.path() / "settings.db", log};
    NoResourceService service;
    SilentNotifier notifier;
    HTTPClient client;
    DownloadManager manager{{simulation.executor(), simulation.executor(), simulation, log, random, center,
                             ActorSettings(settings, simulation.executor()), service, notifier, home.path(),
                             home.path() / "downloads"}};
    int stopsAsked = 0;
    LocalAPI api{manager, simulation, log, [this] { ++stopsAsked; }};
};

TEST_F(LocalAPITest, letsInOnlyWhoHasTheTokenAndAsksForUs) {
    const auto statusWith = [&](std::vector<HTTPHeader> headers) {
        return ask("GET", "/api/v1/tasks", {}, std::move(headers)).status;
    };
    const HTTPHeader token{"Authorization", "Bearer secret"};
    const std::string ours = "127.0.0.1:" + std::to_string(api.port());
    EXPECT_EQ(statusWith({token}), 200);
    EXPECT_EQ(statusWith({token, {"Origin", "http://" + ours}}), 200);
    EXPECT_EQ(statusWith({}), 401);
    for (const char* const wrong : {"Bearer secre", "Bearer secret1", "Bearer ", "Basic secret"})
        EXPECT_EQ(statusWith({{"Authorization", wrong}}), 401) << wrong;
    for (const std::string origin : {"http://evil.example", "null", "https://127.0.0.1", "http://127.0.0.1:1"})
        EXPECT_EQ(statusWith({token, {"Origin", origin}}), 403) << origin;
    EXPECT_EQ(statusWith({token, {"Host", "evil.example:" + std::to_string(api.port())}}), 403);
}

TEST_F(LocalAPITest, offersTheListAndTheCommands) {
    EXPECT_EQ(asText(ask("GET", "/api/v1/tasks").body), "[]");
    const json::object added = objectIn(ask("POST", "/api/v1/tasks", R"({"source":"no link"})"));
    EXPECT_EQ(added.at("errorMessage").as_string(), "Invalid URL");
    const std::string task = "/api/v1/tasks/" + std::string(added.at("infoHash").as_string());
    const json::object changed = objectIn(ask("PATCH", task, R"({"category":"book","notes":"n"})"));
    EXPECT_EQ(changed.at("category").as_string(), "book");
    EXPECT_EQ(objectIn(ask("GET", task)).at("notes").as_string(), "n");
    EXPECT_EQ(objectIn(ask("POST", task + "/resume")).at("errorMessage").as_string(),
              "Cannot resume: download URL missing");
    EXPECT_EQ(ask("PATCH", task, R"({"category":"spell"})").status, 400);
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

TEST_F(LocalAPITest, isDescribedRouteByRoute) {
    std::set<std::string> offered;
    for (const Router::Route& route : api.router().routes()) offered.insert(route.method + " " + route.path);
    std::set<std::string> described;
    const Bytes file = readWholeFile(SKEIN_OPENAPI, 1'000'000);
    const json::value document = json::parse(asText(file));
    for (const auto& path : document.as_object().at("paths").as_object())
        for (const auto& method : path.value().as_object()) {
            std::string name(method.key());
            if (name == "parameters") continue;
            std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::toupper(c); });
            described.insert(name + " " + std::string(path.key()));
        }
    EXPECT_EQ(offered, described);
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

TEST(ResolveTask, takesHashesPrefixesAndRows) {
    const std::vector<std::string> list{"aaaa1111", "aaaa2222", "1234bbbb"};
    EXPECT_EQ(resolveTask(list, "aaaa2"), "aaaa2222");
    EXPECT_EQ(resolveTask(list, "3"), "1234bbbb");
    EXPECT_EQ(resolveTask(list, "1234"), "1234bbbb");
    for (const char* const wrong : {"aaaa", "aaa", "0", "4", "", "bbbb"})
        EXPECT_THROW(resolveTask(list, wrong), CommandFailure) << wrong;
}

TEST(TaskTable, fitsTheTerminalWhateverTheName) {
    const json::object task{{"name", "論文 " + std::string(200, 'x')},
                            {"totalSize", 5},
                            {"progress", 0.9999},
                            {"status", "fetchingMetadata"},
                            {"downloadSpeed", 0},
                            {"uploadSpeed", 2048},
                            {"peerCount", 3}};
    const std::string table = taskTable(json::array{task}, 100);
    EXPECT_THAT(table, HasSubstr("99.9%  fetchingMetadata"));
    EXPECT_THAT(table, HasSubstr("…"));
    EXPECT_THAT(table, HasSubstr("2.0 KiB/s     3\n"));
    EXPECT_LE(table.find('\n'), 100U);
}

}  // namespace
}  // namespace skein
