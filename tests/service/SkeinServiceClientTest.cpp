#include "tests/service/ServiceTest.h"

namespace skein {
namespace {

using testing::DoubleEq, testing::ElementsAre, testing::FieldsAre, testing::SizeIs;

class SkeinServiceClientTest : public ServiceTest {
protected:
    const ResourceRegistration registration{
        hash, ResourceStatus::leechingSeeding, UploadMode::free, {"192.168.1.7", "10.0.0.7"}, 6881, 5'000'000'000};
};

TEST_F(SkeinServiceClientTest, tellsTheServiceWhatIsHeldHere) {
    EXPECT_TRUE(run(client.registerResource(registration)));
    EXPECT_EQ(lastSent(), "POST /api/resource/register {\"info_hash\":\"" + hash +
                              "\",\"status\":\"leeching_seeding\",\"upload_mode\":\"free\",\"local_ip\":"
                              "[\"192.168.1.7\",\"10.0.0.7\"],\"port\":6881,\"total_bytes\":5000000000}");
    for (const auto& [name, value] : {std::pair<std::string, std::string>("content-type", "application/json"),
                                      {"x-user-id", "alice"},
                                      {"x-user-token", "open sesame"},
                                      {"x-device-id", *settings.text(ServiceAccount::deviceIdKey)}})
        EXPECT_EQ(service.requests().back().header(name), value);

    const std::pair<std::string, asio::awaitable<bool> (SkeinServiceClient::*)(std::string)> calls[] = {
        {"complete", &SkeinServiceClient::markComplete},
        {"unregister", &SkeinServiceClient::unregister},
        {"delete", &SkeinServiceClient::deleteResource}};
    for (const auto& [name, call] : calls) {
        EXPECT_TRUE(run((client.*call)(hash)));
        EXPECT_EQ(lastSent(), "POST /api/resource/" + name + " {\"info_hash\":\"" + hash + "\"}");
    }
    EXPECT_TRUE(run(client.releaseResourcesForLogout()));
    EXPECT_EQ(lastSent(), "POST /api/resource/release {}");
}

TEST_F(SkeinServiceClientTest, findsWhoElseHoldsATorrent) {
    EXPECT_TRUE(run(client.registerResource(registration)));
    settings.set(ServiceAccount::deviceIdKey, "another device");
    service.ledger().peerOverlays["alice"] = {{"speed_limit", 5000}};
    const auto own = FieldsAre("alice", "127.0.0.1", 6881, "192.168.1.7", UploadMode::free, 5000, true, true);
    EXPECT_THAT(run(client.getPeers(hash, "all")), ElementsAre(own));
    EXPECT_EQ(lastSent(), "GET /api/resource/peers?info_hash=" + hash + "&mode=all ");
    run(client.getPeers("a&b=c d/\"?#é", "all"));
    EXPECT_EQ(lastSent(), "GET /api/resource/peers?info_hash=a%26b=c%20d/%22?%23%C3%A9&mode=all ");
}

TEST_F(SkeinServiceClientTest, reportsWhatWasMovedForItsOwnUserOnlyAndReadsTheBalance) {
    HeartbeatPayload first = report("event-1", 1'000, 3 << 20, {{"bob", 2 << 20, 0}});
    first.rawDownloadDelta = 77;
    first.peerSnapshots = {{1, 2, 3}};
    const std::vector<HeartbeatPayload> batch{first, report("event-2", 5, 0)};
    const auto result = run(client.batchHeartbeat(batch));
    ASSERT_TRUE(result);
    EXPECT_EQ(
        lastSent(),
        "POST /api/resource/heartbeat/batch {\"items\":[{\"event_id\":\"event-1\",\"info_hash\":\"" + hash +
            "\",\"status\":\"leeching\",\"upload_mode\":\"paid\",\"upload_delta\":1000,\"download_delta\":3145728,"
            "\"peers\":[{\"peer_user\":\"bob\",\"verified_bytes\":2097152,\"sent_bytes\":0}]},{\"event_id\":"
            "\"event-2\",\"info_hash\":\"" +
            hash +
            "\",\"status\":\"leeching\",\"upload_mode\":\"paid\",\"upload_delta\":5,\"download_delta\":0,"
            "\"peers\":[]}]}");
    EXPECT_TRUE(result->ok);
    EXPECT_THAT(result->items, ElementsAre(FieldsAre(hash, "leeching", 0, 0, 2 << 20, 1 << 20, 0)));
    SkeinRates rates = SkeinRates::defaults;
    rates.apply(result->rates.value());
    EXPECT_THAT(rates, FieldsAre(ServiceLedger::downloadCostRate, ServiceLedger::uploaderShareRatio,
                                 SkeinRates::defaults.publicBTCostRate));
    EXPECT_THAT(run(client.fetchBalance()).value(),
                FieldsAre(true, SizeIs(1), DoubleEq(9.996), DoubleEq(10), DoubleEq(-0.004)));

    const std::vector<HeartbeatPayload> hers{report("event-3", 1, 0)};
    signIn("bob", "swordfish");
    const std::size_t sent = service.requests().size();
    EXPECT_FALSE(run(client.batchHeartbeat(hers)));
    EXPECT_EQ(service.requests().size(), sent);
}

TEST_F(SkeinServiceClientTest, anAnswerThatComesTwiceIsNotTakenForTheNextOne) {
    EXPECT_TRUE(run(client.registerResource(registration)));
    signIn("bob", "swordfish");
    service.fail(ServiceFault::duplicateAnswer);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(run(client.fetchBalance()));
        EXPECT_EQ(run(client.getPeers(hash, "all")).size(), 1U);
        EXPECT_TRUE(run(client.batchHeartbeat({})));
    }
}

TEST_F(SkeinServiceClientTest, withoutAUserOrAServiceNothingIsSent) {
    const auto expectSkips = [this](const std::string& why) {
        for (const auto& [name, succeeds] : calls()) {
            EXPECT_FALSE(succeeds());
            EXPECT_EQ(lastLine(), "⚠️ skip " + name + " — " + why);
        }
    };
    settings.set(ServiceAccount::serverURLKey, " / ");
    expectSkips("skeinserverUrl 未配置");
    EXPECT_EQ(failureOf(client.walletTransfer("bob", 1, {})), "skeinserver not configured");
    run(account.signOut());
    expectSkips("no user is signed in");
    EXPECT_EQ(failureOf(client.walletTransfer("bob", 1, {})), "no user is signed in");
    EXPECT_THAT(service.requests(), SizeIs(0));
}

}  // namespace
}  // namespace skein
