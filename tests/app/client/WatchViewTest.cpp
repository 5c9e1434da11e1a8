#include "app/client/WatchView.h"

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>

namespace skein {
namespace {

namespace json = boost::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

json::object task(const std::string& infoHash, const std::string& name) {
    return {{"infoHash", infoHash}, {"number", infoHash[0] - 'a' + 1},
            {"name", name},         {"totalSize", 5},
            {"progress", 0},        {"status", "paused"},
            {"downloadSpeed", 0},   {"uploadSpeed", 0},
            {"peerCount", 0}};
}

class WatchViewTest : public testing::Test {
protected:
    WatchViewTest() {
        json::array tasks;
        for (const char name : {'a', 'b', 'c', 'd', 'e'}) tasks.push_back(task({name}, std::string("name-") + name));
        view.take({{"type", "list"}, {"tasks", tasks}});
    }
    /// "pause b", or what else the keys ask for at last.
    std::string press(std::string_view typed) {
        std::optional<WatchAction> action;
        for (const Key key : reader.read(typed)) action = view.press(key);
        if (!action) return "nothing";
        static constexpr const char* names[] = {"pause ", "resume ", "remove ", "remove with files ", "quit"};
        return names[static_cast<std::size_t>(action->kind)] + action->infoHash;
    }
    std::string screen(std::size_t rows = 24) { return view.screen(rows, 100); }

    KeyReader reader;
    WatchView view;
};

TEST_F(WatchViewTest, keysChooseATaskAndCommandIt) {
    EXPECT_EQ(press("p"), "pause a");
    EXPECT_EQ(press("kkjp"), "pause b");
    EXPECT_EQ(press("\x1B[B\x1BOBr"), "resume d");
    EXPECT_EQ(press("jjjjjr"), "resume e");
    EXPECT_EQ(press("\x1B[1;5B\x1B[Ax\x1B\x1B[Ar"), "resume d") << "what it does not know does nothing";
    EXPECT_EQ(press("\x1B"), "nothing");
    EXPECT_EQ(press("["), "nothing");
    EXPECT_EQ(press("Ap"), "pause c") << "a sequence came in parts";
    EXPECT_EQ(press("gp"), "pause a");
    EXPECT_EQ(press("Gp"), "pause e");
    EXPECT_EQ(press("q"), "quit");
}

TEST_F(WatchViewTest, removesOnlyAfterAYes) {
    EXPECT_EQ(press("d"), "nothing");
    EXPECT_THAT(screen(), HasSubstr("Remove? y/n   name-a"));
    EXPECT_EQ(press("y"), "remove a");
    EXPECT_EQ(press("y"), "nothing");
    EXPECT_EQ(press("D"), "nothing");
    EXPECT_THAT(screen(), HasSubstr("Remove and delete its files? y/n   name-a"));
    EXPECT_EQ(press("y"), "remove with files a");
    EXPECT_EQ(press("dn"), "nothing");
    EXPECT_EQ(press("y"), "nothing");
    press("d");
    view.take({{"type", "removed"}, {"infoHash", "a"}});
    EXPECT_EQ(press("y"), "nothing") << "another task has its place now";
    EXPECT_EQ(press("p"), "pause b");
}

TEST_F(WatchViewTest, theChoiceStaysWithItsTaskAndInSight) {
    press("jjj");
    EXPECT_THAT(screen(6), AllOf(HasSubstr("\x1B[7m  4 name-d"), HasSubstr("name-c"), Not(HasSubstr("name-b"))));
    view.take({{"type", "removed"}, {"infoHash", "b"}});
    EXPECT_THAT(screen(6), AllOf(HasSubstr("  5 name-e"), HasSubstr("\x1B[7m  4 name-d"))) << "it keeps its number";
    EXPECT_EQ(press("p"), "pause d");
    view.take({{"type", "removed"}, {"infoHash", "e"}});
    view.take({{"type", "removed"}, {"infoHash", "d"}});
    EXPECT_EQ(press("p"), "pause c");
    view.take({{"type", "list"}, {"tasks", json::array()}});
    EXPECT_EQ(press("pjkdy"), "nothing");
    EXPECT_THAT(screen(1), Not(HasSubstr("\n")));
}

TEST_F(WatchViewTest, showsChangesAndNothingThatMovesTheCursor) {
    view.take({{"type", "added"}, {"task", task("f", "\x1B[2J\af")}});
    view.take({{"type", "changed"}, {"task", {{"infoHash", "f"}, {"status", "error"}, {"errorMessage", "\x1B]0;x"}}}});
    view.take({{"type", "changed"}, {"task", {{"infoHash", "unknown"}, {"status", "error"}}}});
    press("G");
    EXPECT_THAT(screen(),
                AllOf(HasSubstr("  6 ?[2J?f"), HasSubstr("  Error "), HasSubstr("?]0;x"), HasSubstr("6 tasks, ")));
    view.take({{"type", "completed"}, {"infoHash", "f"}, {"name", "\x1B[2Jf"}});
    EXPECT_THAT(screen(), HasSubstr("?[2Jf: complete"));
    view.take({{"type", "chat"}});
    std::string shown = screen();
    for (const std::string ours : {"\x1B[H", "\x1B[2K", "\x1B[7m", "\x1B[1m", "\x1B[0m"})
        for (auto at = shown.find(ours); at != std::string::npos; at = shown.find(ours)) shown.erase(at, ours.size());
    EXPECT_THAT(shown, Not(HasSubstr("\x1B")));
}

}  // namespace
}  // namespace skein
