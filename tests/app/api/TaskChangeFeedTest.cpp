#include "app/api/TaskChangeFeed.h"

#include <gtest/gtest.h>

namespace skein {
namespace {

namespace json = boost::json;

class TaskChangeFeedTest : public testing::Test {
protected:
    void put(const std::string& infoHash, int progress, const std::string& name = "n") {
        journal.put(infoHash, {{"infoHash", infoHash}, {"name", name}, {"progress", progress}});
        feed.touch(infoHash);
    }
    void remove(const std::string& infoHash) {
        journal.remove(infoHash);
        feed.touch(infoHash);
    }
    std::string next() { return feed.next().value_or("nothing"); }

    TaskJournal journal;
    TaskChangeFeed feed{journal};
};

TEST_F(TaskChangeFeedTest, tellsEachReaderWhatChangedSinceItWasTold) {
    put("b", 1);
    put("a", 1);
    EXPECT_EQ(next(), R"({"type":"list","tasks":[{"infoHash":"b","name":"n","progress":1},)"
                      R"({"infoHash":"a","name":"n","progress":1}]})");
    EXPECT_EQ(next(), "nothing");
    TaskChangeFeed other(journal);
    other.next();
    put("a", 2);
    other.touch("a");
    EXPECT_EQ(next(), R"({"type":"changed","task":{"infoHash":"a","progress":2}})");
    put("a", 3, "m");
    put("a", 3, "m");
    EXPECT_EQ(next(), R"({"type":"changed","task":{"infoHash":"a","name":"m","progress":3}})");
    EXPECT_EQ(next(), "nothing");
    put("b", 1);
    EXPECT_EQ(next(), "nothing") << "nothing of it has changed";
    put("a", 4, "m");
    EXPECT_EQ(other.next(), R"({"type":"changed","task":{"infoHash":"a","name":"m","progress":4}})");
    EXPECT_FALSE(other.next());
}

TEST_F(TaskChangeFeedTest, tellsOfTasksThatComeAndGo) {
    EXPECT_EQ(next(), R"({"type":"list","tasks":[]})");
    put("a", 1);
    put("a", 2);
    EXPECT_EQ(next(), R"({"type":"added","task":{"infoHash":"a","name":"n","progress":2}})");
    EXPECT_EQ(next(), "nothing");
    put("b", 1);
    remove("b");
    EXPECT_EQ(next(), "nothing") << "it went unnoticed";
    remove("a");
    put("a", 5);
    EXPECT_EQ(next(), R"({"type":"removed","infoHash":"a"})");
    EXPECT_EQ(next(), R"({"type":"added","task":{"infoHash":"a","name":"n","progress":5}})");
    EXPECT_EQ(next(), "nothing");
}

TEST_F(TaskChangeFeedTest, holdsABoundedNumberOfThings) {
    next();
    for (std::size_t i = 0; i <= TaskChangeFeed::mostEvents; ++i)
        feed.add(std::make_shared<const std::string>(std::to_string(i)));
    EXPECT_EQ(next(), "1");
    for (std::size_t i = 0; i <= TaskChangeFeed::mostTasks; ++i) feed.touch(std::to_string(i));
    EXPECT_EQ(next(), R"({"type":"list","tasks":[]})");
    EXPECT_EQ(next(), "2");
}

}  // namespace
}  // namespace skein
