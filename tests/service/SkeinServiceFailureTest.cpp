#include "tests/service/ServiceTest.h"

#include <boost/system/system_error.hpp>

#include <chrono>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::AllOf, testing::ElementsAre, testing::HasSubstr, testing::StartsWith;

class SkeinServiceFailureTest : public ServiceTest {
protected:
    /// What the heartbeat logs of its answer; it has no result.
    std::string heartbeatFailure() {
        EXPECT_FALSE(run(client.batchHeartbeat({})));
        return lastLine();
    }
    void answer(std::string_view body) { service.answerWith(HTTPReply::text(body)); }
};

/// Fails, and remembers what it was asked.
class FailingFetcher final : public HTTPFetcher {
public:
    asio::awaitable<HTTPResponse> fetch(HTTPRequest request) override {
        asked = std::move(request);
        throw HTTPException(HTTPError::timeout, "after a while");
        co_return HTTPResponse{};
    }
    HTTPRequest asked;
};

TEST_F(SkeinServiceFailureTest, everyCallSaysWhyItFailed) {
    for (const auto& [fault, why] : {std::pair(ServiceFault::serverError, " HTTP 500 — {\"error\":\"out of order\"}"),
                                     {ServiceFault::hangUp, " error: The transfer failed: "}}) {
        service.fail(fault);
        for (const auto& [name, succeeds] : calls()) {
            EXPECT_FALSE(succeeds());
            EXPECT_THAT(lastLine(), AllOf(HasSubstr(name), HasSubstr(why)));
        }
    }
    service.fail(ServiceFault::oversize);
    EXPECT_EQ(heartbeatFailure(), "❌ heartbeat/batch error: The response is too large: more than 8388608 bytes");

    service.fail(ServiceFault::none);
    settings.set(ServiceAccount::credentialKey, "wrong");
    EXPECT_THAT(heartbeatFailure(), HasSubstr(" HTTP 401 — "));
    for (const int status : {300, 304, 404}) {
        service.answerWith(HTTPReply::text("{\"ok\":true}", status));
        EXPECT_FALSE(run(client.deleteResource(hash))) << status;
    }
    service.answerWith(HTTPReply::text("", 204));
    EXPECT_TRUE(run(client.deleteResource(hash)));
}

TEST_F(SkeinServiceFailureTest, aCallIsBoundedInTimeAndSize) {
    FailingFetcher failing;
    SkeinServiceClient other(failing, account, simulation, log);
    EXPECT_FALSE(run(other.deleteResource(hash)));
    EXPECT_EQ(failing.asked.totalTimeout, 30s);
    EXPECT_EQ(failing.asked.maxBodyBytes, 8U << 20U);
}

TEST_F(SkeinServiceFailureTest, onlyTheEndByCancellationIsThrown) {
    service.fail(ServiceFault::silent);
    auto ended = simulation.begin(client.fetchBalance());
    simulation.runUntil([&] { return service.requests().size() == 1; });
    http.stop();
    EXPECT_THROW(simulation.finish(std::move(ended)), boost::system::system_error);
}

TEST_F(SkeinServiceFailureTest, aRedirectIsNeitherFollowedNorAConfirmation) {
    ScriptedHTTPServer elsewhere(simulation.executor(), [](const SeenHTTPRequest&) { return HTTPReply::text("{}"); });
    for (const std::string& target : {elsewhere.url("/login"), service.url() + "/other"})
        for (const int status : {302, 308}) {
            service.answerWith(HTTPReply::redirect(target, status));
            EXPECT_FALSE(run(client.deleteResource(hash)));
            EXPECT_EQ(lastLine(), "❌ delete hash=" + hash + " HTTP " + std::to_string(status) + " — moved");
        }
    EXPECT_TRUE(elsewhere.requests().empty());
    EXPECT_EQ(service.requests().size(), 4U);
    run(elsewhere.stop());
}

TEST_F(SkeinServiceFailureTest, whatTheServiceSaysIsQuotedBrieflyOnOneLineAndWithoutTheCredential) {
    service.answerWith(HTTPReply::text("no,\r\n\x1B[31m 'open sesame' \xFF" + std::string(100'000, 'x'), 500));
    EXPECT_EQ(heartbeatFailure(),
              "❌ heartbeat/batch HTTP 500 — no,???[31m '***********' ?" + std::string(512 - 26, 'x') + "…");
    std::string cut;
    for (int i = 0; i < 512; ++i) cut += "é";
    service.answerWith(HTTPReply::text(cut, 500));
    EXPECT_EQ(heartbeatFailure(), "❌ heartbeat/batch HTTP 500 — " + cut);
    service.answerWith(HTTPReply::text(std::string(505, ' ') + "open sesame", 500));
    EXPECT_EQ(heartbeatFailure(), "❌ heartbeat/batch HTTP 500 — " + std::string(505, ' ') + "*******…");
    EXPECT_EQ(log.count("sesame"), 0);
}

TEST_F(SkeinServiceFailureTest, takesWhatIsMeantAndNotWhatIsMalformed) {
    for (const char* body :
         {R"({"ok":true,"items":[],"rates":null})", R"({"ok":true,"items":null,"later":{"a":[1]}})", R"({"ok":true})",
          R"({"ok":false,"rates":{"download_cost_rate":1,"uploader_share_ratio":0}})"}) {
        answer(body);
        EXPECT_TRUE(run(client.batchHeartbeat({}))) << body;
    }
    const std::string item = R"({"info_hash":"x","status":"y","earned":5,"spent":1e-3,"dl_bytes_platform":5.0,)"
                             R"("dl_bytes_public_bt":9223372036854775807,"dl_bytes_relay":0})";
    answer("{\"ok\":true,\"items\":[" + item + "]}");
    EXPECT_THAT(run(client.batchHeartbeat({})).value().items,
                ElementsAre(testing::FieldsAre("x", "y", 5.0, 1e-3, 5, std::numeric_limits<std::int64_t>::max(), 0)));

    const auto expectNoSense = [this](const std::string& body) {
        answer(body);
        EXPECT_THAT(heartbeatFailure(), StartsWith("❌ heartbeat/batch error: the answer is not understood — "));
    };
    const std::map<std::string, std::vector<std::string>> faults{
        {"5,", {"\"5\",", "null,", "1e999,", "NaN,", std::string(400, '9') + ","}},
        {"9223372036854775807", {"9223372036854775808"}},
        {"5.0", {"5.5", "-5"}},
        {"\"x\"", {"7"}},
        {"info_hash", {"infoHash"}}};
    for (const auto& [good, bads] : faults)
        for (const std::string& bad : bads) {
            std::string changed = item;
            expectNoSense("{\"ok\":true,\"items\":[" + changed.replace(changed.find(good), good.size(), bad) + "]}");
        }
    for (const char* body :
         {"", "null", "[]", "{}", R"({"ok":1})", R"({"ok":"true"})", R"({"ok":true} {})", R"({"ok":true)",
          R"({"ok":true,"items":{}})", R"({"ok":true,"items":[null]})", R"({"ok":true,"rates":[]})",
          R"({"ok":true,"rates":{}})", R"({"ok":true,"rates":{"download_cost_rate":-1,"uploader_share_ratio":0}})",
          "{\"ok\":true,\"\xFF\":1}", "<!DOCTYPE html><title>Sign in</title>\n<p>Welcome", "\x01{\xFF\"ok\": tru"})
        expectNoSense(body);
    expectNoSense("{\"ok\":true,\"more\":" + std::string(1'000'000, '[') + std::string(1'000'000, ']') + "}");
    expectNoSense(std::string(2'000'000, '{'));
}

TEST_F(SkeinServiceFailureTest, aPeerThatSaysNonsenseDoesNotHideTheOthers) {
    answer(R"({"peers":[{"user_id":"a","ip":"1.2.3.4","port":65535},{"user_id":"b","ip":"1.2.3.4","port":70000},)"
           R"({"user_id":"c","ip":"1.2.3.4","port":-1},{"user_id":"d","ip":"1.2.3.4","port":0},)"
           R"({"user_id":"e","port":1},null,[],"f",{"user_id":"g","ip":"1.2.3.4","port":1,"upload_mode":"bribed"},)"
           R"({"user_id":"h","ip":"1.2.3.4","port":1,"speed_limit":-1},{"user_id":"","ip":"1.2.3.4","port":1},)"
           R"({"user_id":"z","ip":"::1","port":1.0,"local_ip":null,"upload_mode":"disabled"}]})");
    std::vector<std::string> users;
    for (const SkeinPeerInfo& peer : run(client.getPeers(hash, "all"))) users.push_back(peer.userId);
    EXPECT_THAT(users, ElementsAre("a", "z"));
    answer("{\"peers\":{}}");
    EXPECT_TRUE(run(client.getPeers(hash, "all")).empty());
    EXPECT_EQ(lastLine(), "getPeers error: the answer is not understood — {\"peers\":{}}");
}

}  // namespace
}  // namespace skein
