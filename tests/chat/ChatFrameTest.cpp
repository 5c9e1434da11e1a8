#include "chat/AccelerateMessage.h"
#include "chat/ChatFrame.h"
#include "chat/ChatInbox.h"
#include "chat/ChatMedia.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <gmock/gmock.h>

namespace skein {
namespace {

using testing::ElementsAre;

boost::json::object object(const std::string& text) { return boost::json::parse(text).as_object(); }

TEST(ChatFrame, takesNumbersAndTextsForEachOther) {
    const auto frame = object(R"({"a":12,"b":"12","c":12.0,"d":"x","e":[1],"f":1e300,"g":18446744073709551615})");
    for (const char* key : {"a", "b", "c"}) {
        EXPECT_EQ(chatFrame::numberOf(frame, key), 12) << key;
        EXPECT_EQ(chatFrame::textOf(frame, key), "12") << key;
    }
    for (const char* key : {"d", "e", "f", "g", "missing"}) EXPECT_FALSE(chatFrame::numberOf(frame, key)) << key;
    for (const char* good : {"0", "200", R"("0")", R"("200")"})
        EXPECT_TRUE(chatFrame::isSuccess({{"code", boost::json::parse(good)}})) << good;
    for (const char* bad : {"1", "401", "-1", "true", "null", R"("")", R"("ok")", "[0]"})
        EXPECT_FALSE(chatFrame::isSuccess({{"code", boost::json::parse(bad)}})) << bad;
    EXPECT_FALSE(chatFrame::isSuccess({}));
}

TEST(ChatFrame, becomesTheRecordOfTheStore) {
    const auto chat = chatFrame::readChat(
        object(
            R"({"cmd":"newChat","from":"bob","msg":"a|b\nc","ts":1767225600123,"to":"alice","bundId":"skein","appType":7})"),
        "alice");
    ASSERT_TRUE(chat);
    EXPECT_EQ(chat->recordLine(), "cmd:chat|vipName:bob|destVip:alice|timestamp:1767225600123|bundId:skein|appType:7");
    EXPECT_EQ(chat->text, "a|b\nc");

    const auto media = chatFrame::readChat(
        object(R"({"from":"b|o\nb%","ts":"1767225600","media":{"type":"image","name":"a|\nb"}})"), "alice");
    ASSERT_TRUE(media);
    EXPECT_EQ(media->recordLine(),
              "cmd:chat|vipName:b%7Co%0Ab%25|destVip:alice|timestamp:1767225600|bundId:|appType:"
              R"(|mediaJson:{"type":"image","name":"a|\nb"})");
    EXPECT_EQ(media->sentAt(), 1'767'225'600'000);
    EXPECT_EQ(TalkRecord::of(*media, 1).mediaJson(), R"({"type":"image","name":"a|\nb"})");
    EXPECT_EQ(TalkRecord::of(*chat, 1).mediaJson(), "");
    for (const char* odd : {"", "soon", "-5", "99999999999999999", "999999999999999999999999"}) {
        ChatMessage message;
        message.timestamp = odd;
        EXPECT_EQ(message.sentAt(), 0) << odd;
    }
    EXPECT_FALSE(chatFrame::readChat(object(R"({"from":["bob"],"msg":"x"})"), "alice"));
    EXPECT_FALSE(chatFrame::readGroupMessage(object(R"({"from":"bob","msg":"of no group"})")));
}

TEST(ChatMedia, isReadWhateverASenderCallsItsParts) {
    const auto image = ChatMedia::read(R"({"type":"image","name":"../a.jpg","size":"1200","url":"HTTPS://x/a"})");
    ASSERT_TRUE(image);
    EXPECT_EQ(image->kind + image->name + image->url, "image../a.jpgHTTPS://x/a");
    EXPECT_EQ(image->size, 1'200);
    EXPECT_EQ(ChatMedia::read(R"({"kind":"audio","fileName":"b","fileSize":7,"fileUrl":"http://x/b"})")->name, "b");
    EXPECT_EQ(ChatMedia::read(R"("http://x/c")")->url, "http://x/c");
    for (const char* const odd : {R"("file:///etc/passwd")", "{}", R"({"url":["http://x"],"size":-1})"}) {
        const auto media = ChatMedia::read(odd);
        ASSERT_TRUE(media) << odd;
        EXPECT_EQ(media->url, "") << odd;
        EXPECT_EQ(media->kind, "file") << odd;
        EXPECT_FALSE(media->size) << odd;
    }
    for (const char* const none : {"", "7", "[]", "null", "{"}) EXPECT_FALSE(ChatMedia::read(none)) << none;
}

TEST(ChatFrame, findsTheListOfAnAnswerWhateverItsKey) {
    EXPECT_THAT(chatFrame::idsOf(object(R"({"cmd":"friendList","friends":["a",{"friendId":"b"},{"id":3},7,{}]})")),
                ElementsAre("a", "b", "3"));
    const auto messages = ChatInbox::messagesIn(
        object(R"({"to":"bob","list":[{"from":"alice","msg":"1"},{"from":"bob","msg":"2"},{"msg":"whose?"},4]})"),
        "alice");
    ASSERT_EQ(messages.size(), 2U);
    EXPECT_EQ(messages[0].to, "bob");
    EXPECT_EQ(messages[1].to, "alice");
}

TEST(AccelerateMessage, isAJSONObjectWithItsKeysInOrder) {
    const AccelerateMessage message{"a \"b\" ü caf\xE9", "alice", "magnet:?xt=urn:btih:00/", 5'000'000'000};
    EXPECT_EQ(message.orderedJSONString(),
              R"({"type":"下载加速","name":"a \"b\" ü caf�","user":"alice","magnet":"magnet:?xt=urn:btih:00/",)"
              R"("totalSize":5000000000})");
}

}  // namespace
}  // namespace skein
