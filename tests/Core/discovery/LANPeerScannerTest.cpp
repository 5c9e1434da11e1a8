#include "Core/discovery/LANPeerScanner.h"
#include "Core/discovery/LANPeerSettingsStore.h"
#include "public/common/FileLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <boost/asio/ip/tcp.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using asio::ip::tcp;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::SizeIs;

TEST(LANScanTargetsTest, areTheOtherHostsOfLocalNetworksUpToASlash24) {
    const IPv4Interface large{"en0", "10.1.2.3", 1, 8};
    const IPv4Interface sameNetwork{"en1", "10.1.2.4", 2, 24};
    const IPv4Interface small{"br-0", "192.168.1.5", 3, 30};
    const IPv4Interface tunnel{"tun0", "172.16.0.1", 4, 32};
    const IPv4Interface global{"en2", "198.41.0.4", 5, 24};
    const IPv4Interface loopback{"lo", "127.0.0.1", 6, 8};
    const std::vector all{large, sameNetwork, small, tunnel, global, loopback};
    const auto targets = LANScanTargets::around(all, 7000);
    EXPECT_THAT(targets.hosts, SizeIs(252 + 1));
    EXPECT_EQ(targets.hosts.front(), "10.1.2.1");
    EXPECT_EQ(targets.hosts.back(), "192.168.1.6");
    EXPECT_THAT(targets.hosts, Not(Contains("10.1.2.4")));
    EXPECT_THAT(targets.ports, ElementsAre(6881, 6882, 6883, 6884, 6885, 6886, 6887, 6888, 6889, 7000));
    EXPECT_THAT(LANScanTargets::around(all, 6889, "192.168.1.5").hosts, ElementsAre("192.168.1.6"));
    EXPECT_THAT(LANScanTargets::around(all, 6889).ports, SizeIs(9));
    EXPECT_THAT(LANScanTargets::around(std::vector{IPv4Interface{"tun1", "10.0.0.1", 1, 31}}, 1).hosts,
                ElementsAre("10.0.0.0"));
    std::vector<IPv4Interface> many;
    for (int i = 0; i < 10; ++i) many.push_back({"veth", "10.0." + std::to_string(i) + ".1", 1, 24});
    EXPECT_THAT(LANScanTargets::around(many, 1).hosts, SizeIs(LANScanTargets::maxHosts));
}

class LANPeerScannerTest : public testing::Test {
protected:
    ~LANPeerScannerTest() override { simulation.finish(scanner.stop()); }

    static std::uint16_t portOf(const tcp::acceptor& acceptor) { return acceptor.local_endpoint().port(); }
    bool isOpen(std::uint16_t port) {
        return simulation.finish(isTCPPortOpen(simulation, "127.0.0.1", port, 300ms, "127.0.0.1"));
    }
    void startScan(LANScanTargets targets) {
        simulation.start(scan(std::move(targets)));
        simulation.settle();
    }
    asio::awaitable<void> scan(LANScanTargets targets) {
        LANPeerScanner::OpenPortFound onOpenPort = [this](const PeerAddress& peer) { found.push_back(peer); };
        try {
            co_await scanner.scan(std::move(targets), std::move(onOpenPort));
            hasEnded = true;
        } catch (const boost::system::system_error&) {
            wasCancelled = true;
        }
    }
    /// Leaves no place in the queue of `acceptor`: connections to it then neither come about nor fail.
    void fill(tcp::acceptor& acceptor) {
        acceptor.listen(0);
        waiting.reserve(3);
        while (waiting.size() < 3)
            waiting.emplace_back(simulation.executor()).async_connect(acceptor.local_endpoint(), [](const auto&) {});
        simulation.settle();
    }

    Simulation simulation;
    LANPeerScanner scanner{simulation.executor(), simulation, "127.0.0.1"};
    tcp::acceptor listener{simulation.executor(), tcp::endpoint(asio::ip::address_v4::loopback(), 0)};
    tcp::acceptor silent{simulation.executor(), tcp::v4()};
    std::vector<tcp::socket> waiting;
    std::vector<PeerAddress> found;
    bool hasEnded = false;
    bool wasCancelled = false;
};

TEST_F(LANPeerScannerTest, findsTheListeningPorts) {
    tcp::acceptor other(simulation.executor(), tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    const std::uint16_t closedPort = portOf(other);
    EXPECT_TRUE(isOpen(closedPort));
    other.close();
    EXPECT_FALSE(isOpen(closedPort));
    EXPECT_FALSE(simulation.finish(isTCPPortOpen(simulation, "no address", closedPort, 300ms)));
    EXPECT_FALSE(simulation.finish(isTCPPortOpen(simulation, "127.0.0.1", portOf(listener), 300ms, "203.0.113.77")));
    startScan({std::vector<std::string>(200, "127.0.0.1"), {closedPort, portOf(listener)}});
    simulation.runUntil([this] { return hasEnded; });
    EXPECT_THAT(found, SizeIs(200));
    EXPECT_THAT(found, testing::Each(PeerAddress{"127.0.0.1", portOf(listener)}));
    hasEnded = false;
    startScan({});
    EXPECT_TRUE(hasEnded);
}

TEST_F(LANPeerScannerTest, tries64AtOnceFor300MillisecondsEachUntilItIsStopped) {
    silent.bind(tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    fill(silent);
    startScan({std::vector<std::string>(150, "127.0.0.1"), {portOf(silent)}});
    EXPECT_EQ(simulation.sleepers(), 64U);
    simulation.advance(299ms);
    EXPECT_EQ(simulation.sleepers(), 64U);
    simulation.advance(301ms);
    EXPECT_EQ(simulation.sleepers(), 150U - 128U);
    simulation.finish(scanner.stop());
    simulation.settle();
    EXPECT_TRUE(wasCancelled);
    EXPECT_FALSE(hasEnded);
    EXPECT_THAT(found, testing::IsEmpty());
    EXPECT_EQ(simulation.sleepers(), 0U);
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
    EXPECT_THAT(simulation.finish(store.manualPeers()).peers, testing::IsEmpty());
    EXPECT_FALSE(simulation.finish(store.isPortScanEnabled()));
    simulation.finish(store.setManualPeers(manual.peers));
    simulation.finish(store.setPortScanEnabled(true));
    EXPECT_EQ(settings.text("skein.manualLANPeers"), "10.0.0.1:6881,[fe80::1%eth0]:1,nas.local:7");
    EXPECT_EQ(simulation.finish(store.manualPeers()).peers, manual.peers);
    EXPECT_TRUE(simulation.finish(store.isPortScanEnabled()));
}

}  // namespace
}  // namespace skein
