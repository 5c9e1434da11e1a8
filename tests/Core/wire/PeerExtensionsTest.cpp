#include "Core/formats/BEncoder.h"
#include "Core/wire/PeerExtensions.h"
#include "public/common/FatalFault.h"
#include "tests/support/Simulation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre, testing::SizeIs;

class PeerExtensionsTest : public testing::Test {
protected:
    PeerExtensionsTest() {
        PeerExtensions::Callbacks callbacks;
        callbacks.onMetadataReceived = [this](std::int64_t piece, ByteView data) {
            metadata.emplace_back(piece, std::string(asText(data)));
        };
        callbacks.onPexPeersReceived = [this](const std::vector<PeerAddress>& found) { peers.push_back(found); };
        callbacks.metadataToServe = [this] { return ByteView(ours); };
        extensions.setCallbacks(std::move(callbacks));
    }

    void receive(std::uint8_t id, std::string_view payload) {
        Bytes body{id};
        append(body, asBytes(payload));
        extensions.handleExtended(body);
    }
    /// The answer to a request for `piece`, without the id it is addressed to.
    MetadataMessage ask(std::int64_t piece) {
        receive(1, asText(MetadataMessage::encodeRequest(piece)));
        answer = extensions.takeMetadataAnswer();
        EXPECT_EQ(answer.front(), 7);
        return MetadataMessage::decode(ByteView(answer).subspan(1)).value();
    }

    Simulation simulation;
    FileLogger log;
    PeerExtensions extensions{"10.0.0.1:1", simulation, log};
    std::vector<std::pair<std::int64_t, std::string>> metadata;
    std::vector<std::vector<PeerAddress>> peers;
    Bytes ours;
    Bytes answer;
};

TEST_F(PeerExtensionsTest, learnsWhatThePeerAnnounces) {
    EXPECT_EQ(asText(PeerExtensions::handshake(std::nullopt, true)),
              std::string_view("\0d1:md11:ut_metadatai1e6:ut_pexi2eee", 36));
    EXPECT_EQ(asText(PeerExtensions::handshake(77, false)),
              std::string_view("\0d1:md11:ut_metadatai1ee13:metadata_sizei77ee", 45));
    receive(0, "de");
    receive(0, "garbage");
    EXPECT_EQ(extensions.metadataRequest(0), std::nullopt);
    receive(0, "d1:md11:ut_metadatai7e6:ut_pexi255ee13:metadata_sizei33554432e4:reqqi500ee");
    EXPECT_EQ(extensions.remotePexID(), 255);
    EXPECT_EQ(extensions.metadataSize(), 33'554'432);
    EXPECT_EQ(extensions.requestQueue(), 500);
    EXPECT_EQ(asText(extensions.metadataRequest(3).value()), "\7d8:msg_typei0e5:piecei3ee");
    for (const auto size : {"0", "-1", "33554433"}) {
        receive(0, "d13:metadata_sizei" + std::string(size) + "ee");
        EXPECT_EQ(extensions.metadataSize(), 0) << size;
    }
}

TEST_F(PeerExtensionsTest, anIDThatDoesNotFitIsAFatalFault) {
    const FatalFaultHandler before = setFatalFaultHandler(throwOnFatalFault);
    EXPECT_THROW(receive(0, "d1:md11:ut_metadatai256eee"), FatalFault);
    EXPECT_THROW(receive(0, "d1:md6:ut_pexi-1eee"), FatalFault);
    setFatalFaultHandler(before);
}

TEST_F(PeerExtensionsTest, readsMetadataAndIgnoresWhatIsNone) {
    for (const char* const message : {"d8:msg_typei1e5:piecei2e10:total_sizei9eeabcdefghi", "d8:msg_typei1e5:piecei2ee",
                                      "d8:msg_typei1ee", "nonsense", "d8:msg_typei2e5:piecei4ee"})
        receive(1, message);
    receive(3, "d8:msg_typei1e5:piecei2eex");
    extensions.handleExtended({});
    EXPECT_THAT(metadata, ElementsAre(std::pair<std::int64_t, std::string>(2, "abcdefghi")));
    EXPECT_FALSE(extensions.owesMetadata());
}

TEST_F(PeerExtensionsTest, servesMetadataAtABoundedRate) {
    receive(0, "d1:md11:ut_metadatai7eee");
    EXPECT_EQ(ask(0).type, MetadataMessage::reject) << "nothing is verified yet";
    ours = Bytes(16384 + 3, 'x');
    EXPECT_THAT(ask(0).bytes, SizeIs(16384));
    EXPECT_THAT(ask(1).bytes, SizeIs(3));
    for (const std::int64_t outside : {std::int64_t{2}, std::int64_t{-1}, std::numeric_limits<std::int64_t>::max()})
        EXPECT_EQ(ask(outside).type, MetadataMessage::reject);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(ask(0).type, MetadataMessage::data);
    EXPECT_EQ(ask(0).type, MetadataMessage::reject) << "three copies an hour are enough";
    simulation.advance(1h);
    EXPECT_EQ(ask(0).type, MetadataMessage::data);
    const Bytes request = MetadataMessage::encodeRequest(0);
    std::size_t waiting = 0;
    for (int i = 0; i < 5000; ++i) receive(1, asText(request));
    for (; extensions.owesMetadata(); ++waiting) extensions.takeMetadataAnswer();
    EXPECT_EQ(waiting, PeerExtensions::maxWaitingRequests);
}

TEST_F(PeerExtensionsTest, takesAFewPeersOnceAMinute) {
    receive(2,
            "d5:added14:\x01\x02\x03\x04\x1a\xe1\x05\x06\x07\x08\x1a\xe2xx6:added618:"
            " \x01\r\xb8............\x1a\xe3"
            "e");
    receive(2,
            "d5:added6:\x01\x02\x03\x05\x1a\xe1"
            "e");
    ASSERT_THAT(peers, SizeIs(1));
    EXPECT_THAT(peers[0], ElementsAre(PeerAddress{"1.2.3.4", 6881}, PeerAddress{"5.6.7.8", 6882},
                                      PeerAddress{"2001:db8:2e2e:2e2e:2e2e:2e2e:2e2e:2e2e", 6883}));
    simulation.advance(1min);
    receive(2, "d5:added1200:" + std::string(1200, 'p') + "e");
    EXPECT_THAT(peers.back(), SizeIs(PeerExtensions::maxPexPeers));
}

}  // namespace
}  // namespace skein
