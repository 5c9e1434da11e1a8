#include "chat/TalkData.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <optional>

namespace skein {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::int64_t noon = 1'767'268'800'000;

ChatMessage message(const std::string& from, const std::string& to, std::int64_t time, const std::string& text,
                    bool isGroup = false) {
    return {.from = from, .to = to, .isGroup = isGroup, .text = text, .timestamp = std::to_string(time)};
}

class TalkDataTest : public testing::Test {
protected:
    std::size_t append(const std::vector<ChatMessage>& messages, const std::string& owner = "alice") {
        return simulation.finish(talk->append(owner, messages)).size();
    }
    std::optional<std::int64_t> appendOwn(const ChatMessage& own) {
        return simulation.finish(talk->appendOwn("alice", own));
    }
    std::vector<TalkRecord> records(std::int64_t limit = 100, std::optional<TalkPlace> before = std::nullopt) {
        return simulation.finish(talk->history("alice", {"bob"}, limit, before));
    }
    std::vector<std::string> texts(const std::string& owner = "alice", const TalkPartner& partner = {"bob"}) {
        std::vector<std::string> found;
        for (TalkRecord& one : simulation.finish(talk->history(owner, partner, 100))) found.push_back(one.text);
        return found;
    }
    void open() { talk.emplace(folder.path() / "talk.db", simulation.executor(), log); }

    Simulation simulation;
    TemporaryFolder folder;
    RecordingLogger log;
    std::optional<TalkData> talk{std::in_place, folder.path() / "talk.db", simulation.executor(), log};
};

TEST_F(TalkDataTest, keepsBothDirectionsOnceAndInOrderAcrossRestarts) {
    const ChatMessage second = message("bob", "alice", noon + 2, "two");
    EXPECT_EQ(append({second, message("alice", "bob", noon + 1, "one"), second}), 2U);
    EXPECT_EQ(append({second, message("bob", "alice", noon + 2, "another")}), 1U);
    EXPECT_EQ(append({message("bob", "bob", noon, "to a group of the same name", true)}), 1U);
    EXPECT_EQ(append({message("bob", "mallory", noon, "of another account")}, "mallory"), 1U);

    open();
    EXPECT_THAT(texts(), ElementsAre("one", "two", "another"));
    EXPECT_THAT(texts("alice", {"bob", true}), ElementsAre("to a group of the same name"));
    EXPECT_THAT(texts("mallory"), ElementsAre("of another account"));
    EXPECT_THAT(texts("eve"), IsEmpty());
    EXPECT_EQ(records()[1].record, second.recordLine());
    EXPECT_EQ(records()[1].from, "bob");
    EXPECT_EQ(records()[1].sentAt, noon + 2);
}

TEST_F(TalkDataTest, pagesBackThroughTheHistoryWithinItsBounds) {
    std::vector<ChatMessage> many;
    for (int i = 0; i < 250; ++i) many.push_back(message("bob", "alice", noon + i / 2, std::to_string(i)));
    append(many);
    EXPECT_EQ(records(1000).size(), 200U);
    EXPECT_EQ(records(0).size(), 0U);
    int expected = 249;
    for (auto page = records(60); !page.empty(); page = records(60, TalkPlace{page.front().sentAt, page.front().id}))
        for (auto one = page.rbegin(); one != page.rend(); ++one) EXPECT_EQ(one->text, std::to_string(expected--));
    EXPECT_EQ(expected, -1);

    const std::string large(1'500'000, 'x');
    for (int i = 0; i < 4; ++i) append({message("bob", "alice", noon + 1000 + i, large + std::to_string(i))});
    EXPECT_EQ(records(100).size(), 2U);
    append({message("bob", "alice", noon + 2000, std::string(5'000'000, 'y'))});
    EXPECT_EQ(records(100).size(), 1U);
}

TEST_F(TalkDataTest, knowsOurOwnMessagesAgainWhenAServerTellsThem) {
    appendOwn(message("alice", "bob", noon, "ok"));
    appendOwn(message("alice", "bob", noon + 10'000, "ok"));
    const auto unsent = appendOwn(message("alice", "bob", noon + 20'000, "never sent"));
    const std::vector<ChatMessage> told{message("alice", "bob", noon + 1'500, "ok"),
                                        message("alice", "bob", noon + 11'500, "ok")};
    EXPECT_EQ(append(told), 0U);
    EXPECT_EQ(append(told), 0U);
    EXPECT_EQ(records()[0].sentAt, noon + 1'500);
    EXPECT_EQ(records()[1].record, told[1].recordLine());
    // From another device of ours, long after.
    EXPECT_EQ(append({message("alice", "bob", noon + 900'000, "ok")}), 1U);

    simulation.finish(talk->removeOwn(*unsent));
    EXPECT_THAT(texts(), ElementsAre("ok", "ok", "ok"));
    const auto confirmed = appendOwn(message("alice", "bob", noon + 950'000, "told"));
    EXPECT_EQ(append({message("alice", "bob", noon + 950'000, "told")}), 0U);
    simulation.finish(talk->removeOwn(*confirmed));
    EXPECT_THAT(texts(), ElementsAre("ok", "ok", "ok", "told"));
}

TEST_F(TalkDataTest, countsWhatOthersSaidSinceTheLastLook) {
    append({message("bob", "alice", noon, "1"), message("bob", "alice", noon + 1, "2"),
            message("alice", "bob", noon + 2, "mine"), message("carol", "alice", noon - 5, "hello"),
            message("bob", "grp_magnet", noon + 9, "all", true)});
    // "partner unread: last text"
    const auto lines = [this] {
        std::vector<std::string> found;
        for (const TalkConversation& one : simulation.finish(talk->conversations("alice")))
            found.push_back((one.partner.isGroup ? "#" : "") + one.partner.id + " " + std::to_string(one.unread) +
                            ": " + one.last.text);
        return found;
    };
    EXPECT_THAT(lines(), ElementsAre("#grp_magnet 1: all", "bob 2: mine", "carol 1: hello"));
    simulation.finish(talk->markRead("alice", {"bob"}, noon));
    EXPECT_THAT(lines(), ElementsAre("#grp_magnet 1: all", "bob 1: mine", "carol 1: hello"));
    simulation.finish(talk->markRead("alice", {"bob"}, noon + 1));
    simulation.finish(talk->markRead("alice", {"bob"}, noon));
    simulation.finish(talk->markRead("alice", {"grp_magnet", true}, noon + 9));
    open();
    EXPECT_THAT(lines(), ElementsAre("#grp_magnet 0: all", "bob 0: mine", "carol 1: hello"));

    append({message("carol", "alice", noon - 4, std::string(5'000, 'x'))});
    const auto last = simulation.finish(talk->conversations("alice")).back().last;
    EXPECT_EQ(last.text.size(), 200U);
    EXPECT_EQ(simulation.finish(talk->message("alice", last.id)).value().text.size(), 5'000U);
    EXPECT_FALSE(simulation.finish(talk->message("mallory", last.id)));
}

}  // namespace
}  // namespace skein
