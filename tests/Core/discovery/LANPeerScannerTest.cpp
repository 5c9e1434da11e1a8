#include "Core/discovery/LANPeerScanner.h"
#include "Core/discovery/LANPeerSettingsStore.h"
#include "public/common/FileLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using asio::ip::tcp;
using testing::ElementsAre, testing::SizeIs;

TEST(LANScanTargetsTest, areTheOtherHostsOfLocalNetworksUpToASlash24) {
    const std::vector<IPv4Interface> all{{"en0", "10.1.2.3", 1, 8},      {"en1", "10.1.2.4", 2, 24},
                                         {"br-0", "192.168.1.5", 3, 30}, {"tun0", "172.16.0.1", 4, 32},
                                         {"en2", "198.41.0.4", 5, 24},   {"lo", "127.0.0.1", 6, 8}};
    const auto targets = LANScanTargets::around(all, 7000);
    EXPECT_THAT(targets.hosts, SizeIs(252 + 1));
    EXPECT_EQ(targets.hosts.front(), "10.1.2.1");
    EXPECT_EQ(targets.hosts.back(), "192.168.1.6");
    EXPECT_THAT(targets.hosts, testing::Not(testing::Contains("10.1.2.4")));
    EXPECT_THAT(targets.ports, ElementsAre(6881, 6882, 6883, 6884, 6885, 6886, 6887, 6888, 6889, 7000));
    EXPECT_THAT(LANScanTargets::around(all, 6889, LocalBinding("192.168.1.5")).hosts, ElementsAre("192.168.1.6"));
    EXPECT_THAT(LANScanTargets::around(all, 6889).ports, SizeIs(9));
    const IPv4Interface pair{"tun1", "10.0.0.1", 1, 31};
    EXPECT_THAT(LANScanTargets::around({&pair, 1}, 1).hosts, ElementsAre("10.0.0.0"));
    std::vector<IPv4Interface> many;
    for (int i = 0; i < 10; ++i) many.push_back({"veth", "10.0." + std::to_string(i) + ".1", 1, 24});
    EXPECT_THAT(LANScanTargets::around(many, 1).hosts, SizeIs(LANScanTargets::maxHosts));
}

class LANPeerScannerTest : public testing::Test {
protected:
    ~LANPeerScannerTest() override { simulation.finish(scanner.stop()); }

    static std::uint16_t portOf(const tcp::acceptor& acceptor) { return acceptor.local_endpoint().port(); }
    bool isOpen(std::uint16_t port, std::string host = "127.0.0.1", std::string local = "127.0.0.1") {
        return simulation.finish(
            isTCPPortOpen(simulation, std::move(host), port, 300ms, LocalBinding(std::move(local))));
    }
    Simulation simulation;
    LANPeerScanner scanner{simulation.executor(), simulation, LocalBinding("127.0.0.1")};
    tcp::acceptor listener{simulation.executor(), tcp::endpoint(asio::ip::address_v4::loopback(), 0)};
    tcp::acceptor silent{simulation.executor(), tcp::v4()};
    std::vector<std::uint16_t> found;
    const LANPeerScanner::OpenPortFound onOpenPort = [this](const PeerAddress& peer) { found.push_back(peer.port); };
};

TEST_F(LANPeerScannerTest, findsTheListeningPorts) {
    EXPECT_TRUE(isOpen(portOf(listener)));
    silent.bind(tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    const std::uint16_t closedPort = portOf(silent);
    EXPECT_FALSE(isOpen(closedPort));
    EXPECT_FALSE(isOpen(portOf(listener), "no address"));
    EXPECT_FALSE(isOpen(portOf(listener), "127.0.0.1", "203.0.113.77"));
    LANScanTargets targets{std::vector<std::string>(200, "127.0.0.1"), {closedPort, portOf(listener)}};
    simulation.finish(scanner.scan(targets, onOpenPort));
    EXPECT_EQ(found, std::vector(200, portOf(listener)));
    simulation.finish(scanner.scan({}, onOpenPort));
}

TEST_F(LANPeerScannerTest, tries64AtOnceFor300MillisecondsEachUntilItIsStopped) {
    // A queue without place: connections neither come about nor fail.
    silent.bind(tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    silent.listen(0);
    std::vector<tcp::socket> waiting;
    waiting.reserve(3);
    while (waiting.size() < 3)
        waiting.emplace_back(simulation.executor()).async_connect(silent.local_endpoint(), [](const auto&) {});
    LANScanTargets targets{std::vector<std::string>(150, "127.0.0.1"), {portOf(silent)}};
    simulation.start(scanner.scan(targets, onOpenPort));
    simulation.advance(299ms);
    EXPECT_EQ(simulation.sleepers(), 64U);
    simulation.advance(301ms);
    EXPECT_EQ(simulation.sleepers(), 150U - 128U);
    simulation.finish(scanner.stop());
    EXPECT_EQ(simulation.sleepers(), 0U);
    EXPECT_THROW(simulation.finish(scanner.scan(targets, onOpenPort)), boost::system::system_error);
}

TEST(LANPeerSettingsStoreTest, keepsWhatTheUserWroteDown) {
    const auto manual = ManualLANPeers::parse(" 10.0.0.1:6881 ,[fe80::1%eth0]:1,nas.local:7,,10.0.0.1:6881, oops ,:1");
    EXPECT_THAT(manual.peers, ElementsAre(PeerAddress{"10.0.0.1", 6881}, PeerAddress{"fe80::1%eth0", 1},
                                          PeerAddress{"nas.local", 7}));
    EXPECT_THAT(manual.unusable, ElementsAre("oops", ":1"));

    Simulation simulation;
    FileLogger log;
    TemporaryFolder folder;
    SettingsStore settings(folder.path() / "settings.db", log);
    const LANPeerSettingsStore store(ActorSettings(settings, simulation.executor()));
    EXPECT_FALSE(simulation.finish(store.isPortScanEnabled()));
    simulation.finish(store.setManualPeers(manual.peers));
    EXPECT_EQ(settings.text("skein.manualLANPeers"), "10.0.0.1:6881,[fe80::1%eth0]:1,nas.local:7");
    EXPECT_EQ(simulation.finish(store.manualPeers()).peers, manual.peers);
}

}  // namespace
}  // namespace skein
