#include "Core/engine/SessionService.h"
#include "tests/Core/engine/PeerPoolFixture.h"

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre, testing::IsEmpty, testing::SizeIs;

/// A service that answers as the test says.
class FakeGateway final : public ResourceGateway {
public:
    asio::awaitable<ServiceAccess> access() override {
        co_return ServiceAccess{"https://service.example", user, "token", "device"};
    }
    asio::awaitable<bool> registerResource(ResourceRegistration registration) override {
        registered.push_back(registration.status);
        co_return isReachable;
    }
    asio::awaitable<std::vector<SkeinPeerInfo>> getPeers(std::string, std::string) override {
        ++lookups;
        co_return peers;
    }

    std::string user = "me";
    bool isReachable = true;
    std::vector<SkeinPeerInfo> peers;
    std::vector<ResourceStatus> registered;
    int lookups = 0;
};

class SessionServiceTest : public PeerPoolFixture {
protected:
    SessionServiceTest() {
        fate = Fate::fails;
        onDialFailed = [this](const DialRequest& request) { service->onDialFailed(request); };
        SessionService::Environment environment{strand, simulation.executor(), simulation, log, random, gateway,
                                                pool,   std::string(40, 'a'),  6881};
        environment.facts = [this] { return facts; };
        environment.makeRelay = [this](const ServiceAccess&, std::string role, std::string mode) {
            relays.push_back(role + " " + mode);
            return std::make_unique<HeldTransport>(simulation, PeerTransport::tcp, fate);
        };
        service.emplace(std::move(environment));
    }
    ~SessionServiceTest() override {
        simulation.finish(service->stop());
        simulation.finish(pool.stop());
    }

    void start() {
        simulation.finish(service->start());
        simulation.settle();
    }

    SecureRandom random;
    FakeGateway gateway;
    SessionService::Facts facts{"t", 1000, true};
    std::vector<std::string> relays;
    std::optional<SessionService> service;
};

TEST_F(SessionServiceTest, registersAgainEveryTenSecondsWithWhatIsTrueByThen) {
    gateway.isReachable = false;
    start();
    EXPECT_FALSE(service->svcDrainDeltas());
    service->onReceived(1, 500);
    simulation.advance(10s);
    EXPECT_THAT(gateway.registered, ElementsAre(ResourceStatus::leeching, ResourceStatus::leeching));
    facts.canServe = true;
    service->onVerified(1, 300);
    gateway.isReachable = true;
    simulation.settle();
    EXPECT_EQ(gateway.registered.back(), ResourceStatus::leechingSeeding) << "what is new does not wait";
    simulation.advance(10s);
    const HeartbeatPayload payload = service->svcDrainDeltas().value();
    EXPECT_EQ(payload.rawDownloadDelta, 500);
    EXPECT_EQ(payload.downloadDelta, 300);
    EXPECT_EQ(payload.userID, "me");
}

TEST_F(SessionServiceTest, triesThePeersOwnNetworkThenItsAddressThenTheRelay) {
    gateway.peers = {{"bob", "20.1.2.3", 7000, "192.168.1.9", UploadMode::paid, 0, false, true},
                     {"eve", "21.1.2.3", 7000, "", UploadMode::disabled},
                     {"me", "22.1.2.3", 7000, ""},
                     {"me", "23.1.2.3", 7000, "10.0.0.7", UploadMode::paid, 0, true, true},
                     {"mallory", "127.0.0.1", 22, "169.254.1.1"}};
    start();
    EXPECT_THAT(dialledPeers,
                ElementsAre("192.168.1.9:7000", "22.1.2.3:7000", "10.0.0.7:7000", "20.1.2.3:7000", "23.1.2.3:7000"))
        << "a machine of ours elsewhere is a peer like others";
    EXPECT_THAT(relays, testing::UnorderedElementsAre("leecher free", "leecher free", "leecher free"))
        << "bob's, mallory's and that of ours elsewhere; the one on our network needs none";
    simulation.advance(19s);
    EXPECT_EQ(gateway.lookups, 1);
    service->setAccelerate(true);
    simulation.advance(1s);
    EXPECT_EQ(gateway.lookups, 2) << "fewer than five peers are connected";
    EXPECT_EQ(relays.back(), "leecher all");
}

TEST_F(SessionServiceTest, opensNoRelayAtTheThresholdAndServesThroughOneAsASeeder) {
    gateway.peers = {{"bob", "20.1.2.3", 7000, ""}};
    facts.downloadSpeed = 1'048'576;
    start();
    EXPECT_THAT(relays, IsEmpty());
    facts.downloadSpeed = 1'048'575;
    simulation.advance(20s);
    EXPECT_THAT(relays, ElementsAre("leecher free"));
    facts = {"t", 1000, false, true};
    simulation.advance(20s);
    EXPECT_EQ(relays.back(), "seeder all");
}

TEST_F(SessionServiceTest, countsNothingForAUserOfWhatWasMovedBeforeTheSignIn) {
    gateway.user.clear();
    start();
    EXPECT_THAT(gateway.registered, IsEmpty());
    simulation.advance(120s);
    EXPECT_EQ(gateway.lookups, 0);
    service->onVerified(1, 700);
    EXPECT_FALSE(service->svcDrainDeltas());
    EXPECT_THAT(service->takeRest(), IsEmpty());
    gateway.user = "me";
    start();
    service->onVerified(1, 11);
    EXPECT_EQ(service->svcDrainDeltas().value().downloadDelta, 11);
    service->onVerified(1, 5);
    EXPECT_THAT(service->takeRest(), SizeIs(2)) << "the report that waits, and what came after it";
}

}  // namespace
}  // namespace skein
