#include "Core/wire/MessageDecoder.h"
#include "Core/wire/PeerError.h"
#include "Core/wire/PeerHandshake.h"
#include "Core/wire/WireMessage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using testing::ElementsAre, testing::HasSubstr, testing::IsEmpty;

/// Writes down what it is told.
class Notes final : public MessageSink {
public:
    std::vector<std::string> lines;

private:
    void note(const std::string& line) { lines.push_back(line); }
    static std::string text(std::uint32_t a, std::uint32_t b, std::uint32_t c) {
        return std::to_string(a) + "," + std::to_string(b) + "," + std::to_string(c);
    }
    void onChoke(bool isChoked) override { note(isChoked ? "choke" : "unchoke"); }
    void onInterested(bool isInterested) override { note(isInterested ? "interested" : "not interested"); }
    void onHave(std::uint32_t piece) override { note("have " + std::to_string(piece)); }
    void onBitfield(ByteView bitfield) override { note("bitfield " + toHex(bitfield)); }
    void onRequest(std::uint32_t a, std::uint32_t b, std::uint32_t c) override { note("request " + text(a, b, c)); }
    void onCancel(std::uint32_t a, std::uint32_t b, std::uint32_t c) override { note("cancel " + text(a, b, c)); }
    void onPiece(std::uint32_t piece, std::uint32_t begin, ByteView block) override {
        note("piece " + text(piece, begin, static_cast<std::uint32_t>(block.size())));
    }
    void onExtended(ByteView body) override { note("extended " + toHex(body)); }
    void onOversized(std::size_t length) override { note("oversized " + std::to_string(length)); }
};

TEST(MessageDecoder, handsOverEveryMessageHoweverTheStreamIsCut) {
    Bytes stream;
    wire::appendMessage(stream, MessageID::choke);
    wire::appendMessage(stream, MessageID::unchoke);
    wire::appendKeepAlive(stream);
    wire::appendMessage(stream, MessageID::interested);
    wire::appendMessage(stream, MessageID::notInterested);
    wire::appendHave(stream, 0xFFFFFFFF);
    wire::appendMessage(stream, MessageID::bitfield, Bytes{0xA0});
    wire::appendBlockMessage(stream, MessageID::request, {1, 16384, 16384});
    wire::appendBlockMessage(stream, MessageID::cancel, {1, 16384, 16384});
    wire::appendMessage(stream, MessageID::piece, Bytes{0, 0, 0, 2, 0, 0, 64, 0, 0xEE});
    wire::appendMessage(stream, MessageID::extended, Bytes{0, 'd', 'e'});
    for (std::size_t portion = 1; portion <= stream.size(); ++portion) {
        Notes notes;
        Bytes held;
        for (std::size_t at = 0; at < stream.size(); at += portion) {
            append(held, ByteView(stream).subspan(at, std::min(portion, stream.size() - at)));
            for (wire::Decoded decoded{0, true}; decoded.hasMore;) {
                decoded = wire::decodeMessages(held, notes, 2);
                held.erase(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(decoded.bytes));
            }
        }
        EXPECT_THAT(held, IsEmpty());
        EXPECT_THAT(notes.lines,
                    ElementsAre("choke", "unchoke", "interested", "not interested", "have 4294967295", "bitfield a0",
                                "request 1,16384,16384", "cancel 1,16384,16384", "piece 2,16384,1", "extended 006465"));
    }
}

TEST(MessageDecoder, stopsWhenTheWorkIsUsedUp) {
    Bytes stream;
    wire::appendMessage(stream, MessageID::extended, Bytes(640));
    for (int i = 0; i < 3; ++i) wire::appendMessage(stream, MessageID::interested);
    Notes notes;
    const wire::Decoded decoded = wire::decodeMessages(stream, notes, 12);
    EXPECT_TRUE(decoded.hasMore);
    EXPECT_THAT(notes.lines, testing::SizeIs(2)) << "the long one cost 11";
    EXPECT_FALSE(wire::decodeMessages(ByteView(stream).subspan(decoded.bytes), notes, 12).hasMore);
}

TEST(MessageDecoder, skipsShortBodiesAndUnknownIds) {
    Bytes stream;
    wire::appendMessage(stream, MessageID::have, Bytes(3));
    for (const auto id : {MessageID::request, MessageID::cancel}) wire::appendMessage(stream, id, Bytes(11));
    wire::appendMessage(stream, MessageID::piece, Bytes(8));
    wire::appendMessage(stream, MessageID::extended);
    for (const int id : {9, 255}) wire::appendMessage(stream, static_cast<MessageID>(id), Bytes(2));
    wire::appendMessage(stream, MessageID::interested);
    Notes notes;
    EXPECT_EQ(wire::decodeMessages(stream, notes).bytes, stream.size());
    EXPECT_THAT(notes.lines, ElementsAre("interested"));
}

TEST(MessageDecoder, acceptsTwoMebibytesAndNotAByteMore) {
    Notes notes;
    Bytes stream;
    appendBigEndian<std::uint32_t>(stream, wire::maxMessageSize);
    EXPECT_EQ(wire::decodeMessages(stream, notes).bytes, 0U);
    stream.resize(4 + wire::maxMessageSize);
    stream[4] = 7;
    EXPECT_EQ(wire::decodeMessages(stream, notes).bytes, stream.size());
    EXPECT_THAT(notes.lines, ElementsAre("piece 0,0,2097143"));
    Bytes tooLong;
    appendBigEndian<std::uint32_t>(tooLong, wire::maxMessageSize + 1);
    EXPECT_THROW(wire::decodeMessages(tooLong, notes), PeerException);
    EXPECT_EQ(notes.lines.back(), "oversized 2097153");
}

TEST(PeerHandshake, hasItsFieldsWhereTheyBelongAndSaysWhatIsWrong) {
    PeerHandshake handshake;
    handshake.infoHash.fill(0xAA);
    handshake.peerID.fill(0xBB);
    auto bytes = handshake.encode();
    EXPECT_EQ(toHex(bytes),
              "13426974546f7272656e742070726f746f636f6c"
              "0000000000100000" +
                  std::string(20 * 2, 'a') + std::string(20 * 2, 'b'));
    EXPECT_FALSE(PeerHandshake::faultOf(bytes));
    EXPECT_EQ(PeerHandshake::decode(bytes).peerID, handshake.peerID);
    bytes[1] = 'b';
    EXPECT_THAT(*PeerHandshake::faultOf(bytes), HasSubstr(" bad pstr=\"bitTorrent protocol\" head=1362"));
    bytes[0] = 'G';
    EXPECT_THAT(*PeerHandshake::faultOf(bytes), HasSubstr(" bad pstrlen=71 head=4762"));
}

}  // namespace
}  // namespace skein
