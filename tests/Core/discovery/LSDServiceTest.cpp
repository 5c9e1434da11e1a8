#include "Core/discovery/LSDService.h"
#include "Core/discovery/LocalIPv4Address.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"

#include <boost/asio/ip/multicast.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAre;

const std::string hash = "0123456789ABCDEF0123456789ABCDEF01234567";

IPv4Interface loopback() {
    FileLogger log;
    for (const IPv4Interface& interface : localIPv4Interfaces(log))
        if (interface.address == "127.0.0.1") return interface;
    return {};
}

TEST(LSDMessageTest, isTheTextOfBEP14AndReadsBackWhateverThePeerIDHolds) {
    LSDMessage message{6881, {hash}, LSDMessage::peerIDText(toBytes("-XX~\r\n%\xFF")), "the-cookie"};
    EXPECT_EQ(message.text(), "BT-SEARCH * HTTP/1.1\r\nHost: 239.192.152.143:6771\r\nPort: 6881\r\nInfohash: " + hash +
                                  "\r\nPeer-ID: -XX~%0D%0A%25%FF\r\ncookie: the-cookie\r\n\r\n");
    EXPECT_EQ(LSDMessage::parse(message.text()), message);
    EXPECT_THAT(LSDMessage::parse("BT-SEARCH\nINFOHASH : ab:c\nport:7\ninfohash:de")->infoHashes,
                ElementsAre("AB:C", "DE"));
    EXPECT_EQ(LSDMessage::parse("HTTP/1.1 BT-SEARCH\r\nPort: 7\r\n"), std::nullopt);
    for (const char* port : {"", "x", "0", "-1", "+1", "65536", "99999999999", "68 81", "6881x"})
        EXPECT_EQ(LSDMessage::parse("BT-SEARCH\r\nPort: " + std::string(port) + "\r\n"), LSDMessage()) << port;
    EXPECT_EQ(LSDMessage::parse("BT-SEARCH" + std::string(LSDMessage::maxBytes, '\n') + "Port: 1\n"), LSDMessage());
}

TEST(LSDPeerLimitTest, passesAnAddressOnceAMinuteAndNoFloodOfThem) {
    LSDPeerLimit limit;
    const Clock::TimePoint start{};
    EXPECT_TRUE(limit.admit({"10.0.0.1", 1}, start));
    EXPECT_FALSE(limit.admit({"10.0.0.1", 1}, start + 59s));
    std::size_t admitted = 1;
    for (int i = 0; i < 40'000; ++i) {
        const auto port = static_cast<std::uint16_t>(i % 20 + 1);
        if (limit.admit({"10.0.0." + std::to_string(i / 20), port}, start + 59s)) ++admitted;
    }
    EXPECT_EQ(admitted, LSDPeerLimit::maxPeers);
    EXPECT_TRUE(limit.admit({"10.0.0.1", 1}, start + 60s)) << "only what the window saw counts";
    EXPECT_FALSE(limit.admit({"10.9.9.9", 1}, start + 60s));
    std::size_t ofOneHost = 0;
    for (std::uint16_t port = 1; port < 100; ++port)
        if (limit.admit({"10.0.0.7", port}, start + 3min)) ++ofOneHost;
    EXPECT_EQ(ofOneHost, LSDPeerLimit::maxPeersOfHost);
}

TEST(IPv4InterfaceTest, preferredIsAPrivateAddressOfACard) {
    EXPECT_TRUE(isUsableMulticastInterfaceAddress("192.168.1.2"));
    EXPECT_TRUE(isUsableMulticastInterfaceAddress("169.254.1.2"));
    for (const char* address : {"127.0.0.1", "8.8.8.8", "0.0.0.0", "fe80::1", "name", ""})
        EXPECT_FALSE(isUsableMulticastInterfaceAddress(address)) << address;
    const IPv4Interface linkLocal{"en1", "169.254.1.2", 4};
    const IPv4Interface bridge{"docker0", "172.17.0.1", 3};
    const IPv4Interface card{"en0", "10.0.0.2", 2};
    EXPECT_EQ(preferredMulticastInterface(std::vector{linkLocal, bridge, card}), card);
    EXPECT_EQ(preferredMulticastInterface(std::vector{linkLocal, bridge}), bridge);
    EXPECT_EQ(preferredMulticastInterface({}), std::nullopt);

    RecordingLogger log;
    EXPECT_EQ(loopback().prefixLength, 8);
    EXPECT_GT(loopback().index, 0U);
    const auto own = getLocalIPv4Address(log);
    EXPECT_TRUE(!own || log.lines().back().ends_with(") " + *own));
    EXPECT_NE(own, "127.0.0.1");
}

/// Every test process has announces of all others on loopback, so that each test has an info-hash of its own.
class LSDServiceTest : public testing::Test {
protected:
    LSDServiceTest() {
        random.fill(infoHash);
        peerID.fill('p');
        stranger.set_option(asio::ip::multicast::outbound_interface(asio::ip::address_v4::loopback()));
    }
    ~LSDServiceTest() override {
        for (auto& service : services) simulation.finish(service->stop());
    }

    LSDService& make(std::uint16_t port, LSDService::Options options = {"127.0.0.1", true, true}) {
        const LSDService::Torrent torrent{infoHash, port, peerID};
        auto onPeerFound = [this, port](const PeerAddress& peer) {
            found.push_back(std::to_string(port) + " found " + peer.description());
        };
        services.push_back(std::make_unique<LSDService>(simulation.executor(), simulation, random, log, torrent,
                                                        std::move(options), std::move(onPeerFound)));
        return *services.back();
    }
    void send(const std::string& headers) {
        const std::string text = "BT-SEARCH * HTTP/1.1\r\n" + headers + "\r\n";
        stranger.send_to(asio::buffer(text), {asio::ip::make_address(LSDMessage::multicastHost), 6771});
    }
    long announces() const {
        const auto lines = log.lines();
        const std::string line =
            "[LSD] announce sent bytes=193 iface=" + loopback().name + " infoHash=" + toUpperHex(infoHash);
        return std::count_if(lines.begin(), lines.end(), [&](const auto& one) { return one.starts_with(line); });
    }

    Simulation simulation;
    RecordingLogger log;
    SecureRandom random;
    SHA1Digest infoHash{};
    PeerID peerID{};
    std::vector<std::string> found;
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
    EXPECT_THAT(log.lines(), Contains("[LSD] started infoHash=" + toUpperHex(infoHash) + " port=7001").Times(2));
    const std::string outbound =
        "[LSD] multicast outbound interface=" + loopback().name + " index=" + std::to_string(loopback().index);
    for (const auto* line : {"[LSD] joined multicast on 127.0.0.1", outbound.c_str(),
                             "[LSD] received announce from 127.0.0.1", "[LSD] found peer 127.0.0.1 port=7002"})
        EXPECT_THAT(log.lines(), Contains(line));
    EXPECT_THAT(log.lines(), Contains("[LSD] stopped"));
    EXPECT_THAT(log.lines(), testing::Not(Contains(HasSubstr("errno="))));
}

TEST_F(LSDServiceTest, takesOnlyUsableAnnouncesOfItsOwnTorrent) {
    ASSERT_TRUE(simulation.finish(make(7001).start()));
    ASSERT_TRUE(simulation.finish(make(7002, {"127.0.0.1", true, false}).start()));
    const std::string upper = "Infohash: " + toUpperHex(infoHash) + "\r\n";
    send(upper);
    send("Port: 1\r\n");
    send("Port: 1\r\nInfohash: " + hash + "\r\n");
    send("Port: 0\r\n" + upper);
    send("Port: 2\r\nInfohash: " + toHex(infoHash) + "\r\n");
    send("Port: 2\r\n" + upper);
    send("Port: 3\r\nInfohash: " + hash + "\r\n" + upper);
    simulation.runUntil([this] { return found.size() == 2; });
    EXPECT_THAT(found, ElementsAre("7001 found 127.0.0.1:2", "7001 found 127.0.0.1:3")) << "loopback is for the first";
}

TEST_F(LSDServiceTest, staysStoppedRatherThanUseAnotherInterfaceThanTheOneAskedFor) {
    LSDService& service = make(7001, {"203.0.113.77"});
    EXPECT_FALSE(simulation.finish(service.start()));
    simulation.advance(2min);
    EXPECT_EQ(simulation.sleepers(), 0U);
    EXPECT_THAT(log.lines(), ElementsAre("[LSD] local multicast interfaces=",
                                         "[LSD] join multicast failed on all interfaces errno=" +
                                             std::string(strerror(EADDRNOTAVAIL))));
    simulation.finish(service.stop());
    EXPECT_THAT(log.lines(), SizeIs(2));
}

}  // namespace
}  // namespace skein
