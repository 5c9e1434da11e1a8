#include "Core/discovery/LSDService.h"
#include "Core/discovery/LocalIPv4Address.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"

#include <boost/asio/ip/multicast.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::_, testing::Contains, testing::ElementsAre, testing::FieldsAre;

const std::string hash = "0123456789ABCDEF0123456789ABCDEF01234567";

TEST(LSDMessageTest, isTheTextOfBEP14AndReadsBackWhateverThePeerIDHolds) {
    LSDMessage message{6881, {hash}, LSDMessage::peerIDText(toBytes("-XX~\r\n%\xFF")), "the-cookie"};
    EXPECT_EQ(message.text(), "BT-SEARCH * HTTP/1.1\r\nHost: 239.192.152.143:6771\r\nPort: 6881\r\nInfohash: " + hash +
                                  "\r\nPeer-ID: -XX~%0D%0A%25%FF\r\ncookie: the-cookie\r\n\r\n");
    EXPECT_EQ(LSDMessage::parse(message.text()), message);
    EXPECT_THAT(LSDMessage::parse("BT-SEARCH\nINFOHASH : ab:c\nport:7\ninfohash:de")->infoHashes,
                ElementsAre("AB:C", "DE"));
    EXPECT_FALSE(LSDMessage::parse("HTTP/1.1 BT-SEARCH\r\nPort: 7\r\n"));
    for (const char* port : {"", "x", "0", "-1", "+1", "65536", "99999999999", "68 81", "6881x"})
        EXPECT_EQ(LSDMessage::parse("BT-SEARCH\r\nPort: " + std::string(port) + "\r\n"), LSDMessage()) << port;
    EXPECT_EQ(LSDMessage::parse("BT-SEARCH" + std::string(LSDMessage::maxBytes, '\n') + "Port: 1\n"), LSDMessage());
}

TEST(LSDPeerLimitTest, passesAnAddressOnceAMinuteAndNoFloodOfThem) {
    LSDPeerLimit limit;
    const Clock::TimePoint start{};
    EXPECT_TRUE(limit.admit({"10.0.0.1", 1}, start));
    EXPECT_FALSE(limit.admit({"10.0.0.1", 1}, start + 59s));
    std::map<int, std::size_t> admitted;
    for (int host = 2; host < 99; ++host)
        for (std::uint16_t port = 1; port < 20; ++port)
            if (limit.admit({"10.0.0." + std::to_string(host), port}, start + 59s)) ++admitted[host];
    EXPECT_EQ(admitted[2], LSDPeerLimit::maxPeersOfHost);
    EXPECT_EQ(admitted[14], 3U) << "with the hundredth of all";
    EXPECT_EQ(admitted.size(), 13U);
    EXPECT_TRUE(limit.admit({"10.0.0.1", 1}, start + 60s));
}

TEST(IPv4InterfaceTest, preferredIsAPrivateAddressOfACard) {
    for (const char* address : {"192.168.1.2", "169.254.1.2"}) EXPECT_TRUE(isUsableMulticastInterfaceAddress(address));
    for (const char* address : {"127.0.0.1", "8.8.8.8", "fe80::1", ""})
        EXPECT_FALSE(isUsableMulticastInterfaceAddress(address)) << address;
    const IPv4Interface linkLocal{"en1", "169.254.1.2", 4};
    const IPv4Interface bridge{"docker0", "172.17.0.1", 3};
    const IPv4Interface card{"en0", "10.0.0.2", 2};
    EXPECT_EQ(preferredMulticastInterface(std::vector{linkLocal, bridge, card}), card);
    EXPECT_EQ(preferredMulticastInterface(std::vector{linkLocal, bridge}), bridge);
    RecordingLogger log;
    EXPECT_THAT(localIPv4Interfaces(log), Contains(FieldsAre(_, "127.0.0.1", _, 8)));
    EXPECT_NE(getLocalIPv4Address(log), "127.0.0.1");
}

/// Every test process has announces of all others on loopback, so that each test has an info-hash of its own.
class LSDServiceTest : public testing::Test {
protected:
    LSDServiceTest() {
        random.fill(infoHash);
        stranger.set_option(asio::ip::multicast::outbound_interface(asio::ip::address_v4::loopback()));
    }
    ~LSDServiceTest() override {
        for (auto& service : services) simulation.finish(service->stop());
        for (auto& port : ports) simulation.finish(port->stop());
    }

    LSDService& make(std::uint16_t port, bool allowsLocalPeers = true, const char* from = "127.0.0.1") {
        ports.push_back(std::make_unique<LSDPort>(simulation.executor(), simulation, log, LocalBinding(from)));
        return makeAt(*ports.back(), infoHash, port, allowsLocalPeers);
    }
    LSDService& makeAt(LSDPort& at, const SHA1Digest& ofTorrent, std::uint16_t port, bool allowsLocalPeers = true) {
        const LSDService::Torrent torrent{ofTorrent, port, {}};
        auto onPeerFound = [this, port](const PeerAddress& peer) {
            found.push_back(std::to_string(port) + " found " + peer.description());
        };
        services.push_back(std::make_unique<LSDService>(
            at, simulation, random, log, torrent, LSDService::Options{true, allowsLocalPeers}, std::move(onPeerFound)));
        return *services.back();
    }
    void send(const std::string& headers) {
        const std::string text = "BT-SEARCH * HTTP/1.1\r\n" + headers + "\r\n";
        stranger.send_to(asio::buffer(text), {asio::ip::make_address(LSDMessage::multicastHost), 6771});
    }
    long announces() const { return log.count("[LSD] announce sent bytes=233 iface="); }

    Simulation simulation;
    RecordingLogger log;
    SecureRandom random;
    SHA1Digest infoHash{};
    std::vector<std::string> found;
    std::vector<std::unique_ptr<LSDPort>> ports;
    std::vector<std::unique_ptr<LSDService>> services;
    asio::ip::udp::socket stranger{simulation.executor(), asio::ip::udp::endpoint(asio::ip::udp::v4(), 0)};
};

TEST_F(LSDServiceTest, twoServicesMeetAndAnnounceAfterASecondAndThenEveryMinute) {
    LSDService& first = make(7001);
    LSDService& second = make(7002);
    ASSERT_TRUE(simulation.finish(first.start()));
    simulation.advance(999ms);
    EXPECT_EQ(announces(), 0);
    ASSERT_TRUE(simulation.finish(second.start()));
    simulation.advance(1ms);
    EXPECT_EQ(announces(), 1);
    simulation.advance(1s);
    simulation.runUntil([this] { return found.size() == 2; });
    simulation.advance(58'999ms);
    EXPECT_EQ(announces(), 2);
    simulation.advance(1s);
    EXPECT_EQ(announces(), 4);
    simulation.runUntil([this] { return found.size() == 4; });
    EXPECT_THAT(found, Contains("7001 found 127.0.0.1:7002").Times(2));
    EXPECT_THAT(found, Contains("7002 found 127.0.0.1:7001").Times(2));

    simulation.finish(first.stop());
    simulation.advance(60s);
    EXPECT_EQ(announces(), 5);
    EXPECT_TRUE(simulation.finish(first.start()));
    simulation.advance(1s);
    EXPECT_EQ(announces(), 6);
    simulation.runUntil([this] { return found.size() == 5; });
    EXPECT_EQ(log.count("errno="), 0);
}

TEST_F(LSDServiceTest, oneSocketServesAllTorrentsWhileThereAreAny) {
    const auto sockets = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before = sockets();
    LSDService& first = make(7001);
    ASSERT_TRUE(simulation.finish(first.start()));
    SHA1Digest other = infoHash;
    ++other[0];
    for (int i = 0; i < 100; ++i) {
        other[1] = static_cast<std::uint8_t>(i);
        ASSERT_TRUE(simulation.finish(makeAt(*ports.front(), other, 7002).start()));
    }
    EXPECT_EQ(sockets(), before + 1);
    send("Port: 5\r\nInfohash: " + toHex(other) + "\r\n");
    send("Port: 6\r\nInfohash: " + toHex(infoHash) + "\r\n");
    simulation.runUntil([this] { return found.size() == 2; });
    EXPECT_THAT(found, ElementsAre("7002 found 127.0.0.1:5", "7001 found 127.0.0.1:6"));
    for (auto& service : services) simulation.finish(service->stop());
    simulation.settle();
    EXPECT_EQ(sockets(), before);
    ASSERT_TRUE(simulation.finish(first.start()));
    send("Port: 7\r\nInfohash: " + toHex(infoHash) + "\r\n");
    simulation.runUntil([this] { return found.size() == 3; });
}

TEST_F(LSDServiceTest, takesOnlyUsableAnnouncesOfItsOwnTorrent) {
    ASSERT_TRUE(simulation.finish(make(7001).start()));
    ASSERT_TRUE(simulation.finish(make(7002, false).start()));
    const std::string upper = "Infohash: " + toUpperHex(infoHash) + "\r\n";
    send(upper);
    send("Port: 1\r\nInfohash: " + hash + "\r\n");
    send("Port: 2\r\nInfohash: " + toHex(infoHash) + "\r\n");
    send("Port: 2\r\n" + upper);
    send("Port: 3\r\nInfohash: " + hash + "\r\n" + upper);
    simulation.runUntil([this] { return found.size() == 2; });
    EXPECT_THAT(found, ElementsAre("7001 found 127.0.0.1:2", "7001 found 127.0.0.1:3")) << "loopback is for the first";
}

TEST_F(LSDServiceTest, staysStoppedRatherThanUseAnotherInterfaceThanTheOneAskedFor) {
    LSDService& service = make(7001, false, "203.0.113.77");
    EXPECT_FALSE(simulation.finish(service.start()));
    simulation.advance(2min);
    EXPECT_EQ(simulation.sleepers(), 0U);
    EXPECT_EQ(log.count("[LSD] join multicast failed on all interfaces errno="), 1);
}

}  // namespace
}  // namespace skein
