#include "downloads/SavedTaskCodec.h"
#include "downloads/TorrentTask.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;

const Clock::WallTime date{std::chrono::seconds(978'307'200) + 250ms};
const SavedTask bare{.infoHash = "h", .name = "n", .addedDate = date};

class SavedTaskTest : public testing::Test {
protected:
    std::shared_ptr<TorrentTask> restored(SavedTask task) { return std::move(task).restore(center, random); }
    SavedTask savedAs(TaskStatus status) {
        const auto task = restored(bare);
        task->status.set(status);
        return SavedTask::of(*task);
    }

    SecureRandom random;
    MsgCenter center;
};

TEST_F(SavedTaskTest, isOneRecordWithItsKeysInOrder) {
    SavedTask full{.infoHash = "h",
                   .name = "名 \"\x01\xff",
                   .magnetURI = "magnet:?",
                   .addedDate = date,
                   .status = "paused",
                   .totalSize = std::int64_t{1} << 60U,
                   .progress = 0.5,
                   .files = FileList({{"a/b", 1, 2}}),
                   .category = "paper",
                   .notes = "",
                   .downloadURL = "u",
                   .downloadType = "torrent",
                   .ownerUserID = "me",
                   .accelerateEnabled = true};
    const std::string text = SavedTaskCodec::encode(std::vector{full, bare});
    EXPECT_EQ(text, R"([{"infoHash":"h","name":"名 \"\u0001)"
                    "\xff"
                    R"(","magnetURI":"magnet:?","addedDate":2.5E-1,"status":"paused","totalSize":1152921504606846976,)"
                    R"("progress":5E-1,"files":[{"path":"a/b","size":1,"offset":2}],"category":"paper","notes":"",)"
                    R"("downloadURL":"u","downloadType":"torrent","ownerUserID":"me","accelerateEnabled":true},)"
                    R"({"infoHash":"h","name":"n","addedDate":2.5E-1}])");
    EXPECT_EQ(SavedTaskCodec::decode(text), std::vector({full, bare}));
    EXPECT_EQ(SavedTaskCodec::encode({}), "[]");
}

TEST_F(SavedTaskTest, aListWithOneBadRecordIsNone) {
    const std::string good = R"({"infoHash":"h","name":"n","addedDate":0.25)";
    for (const char* more : {"", R"(,"status":null,"future":{"a":[]})"})
        EXPECT_EQ(SavedTaskCodec::decode("[" + good + more + "}]"), std::vector{bare}) << more;
    for (const char* more : {R"(,"status":1)", R"(,"totalSize":1.5)", R"(,"totalSize":1e30)", R"(,"files":{})",
                             R"(,"files":[{"path":"a","size":1}])", R"(,"accelerateEnabled":1)", R"(,"progress":"1")",
                             R"(,"name":null)", R"(,"addedDate":"now")"})
        EXPECT_EQ(SavedTaskCodec::decode("[" + good + "}," + good + more + "}]"), std::nullopt) << more;
    for (const char* text : {"", "{}", "null", "[1]", "[", "[{}]", R"([{"infoHash":"h","name":"n"}])"})
        EXPECT_EQ(SavedTaskCodec::decode(text), std::nullopt) << text;
    const auto far = SavedTaskCodec::decode(R"([{"infoHash":"h","name":"n","addedDate":1e300}])");
    EXPECT_GT(far.value().front().addedDate, date);
}

TEST_F(SavedTaskTest, comesBackPausedOrCompletedWithWhatIsMissingAtItsDefault) {
    EXPECT_EQ(savedAs(TaskStatus::seeding).status, "completed");
    EXPECT_EQ(savedAs(TaskStatus::error).status, "error");
    EXPECT_EQ(restored(savedAs(TaskStatus::seeding))->status(), TaskStatus::completed);
    EXPECT_EQ(restored(savedAs(TaskStatus::downloading))->status(), TaskStatus::paused);
    const auto task = restored(bare);
    EXPECT_EQ(task->status(), TaskStatus::paused);
    EXPECT_EQ(task->downloadType, DownloadType::torrent);
    EXPECT_EQ(task->category(), ResearchCategory::uncategorized);
    EXPECT_EQ(task->addedDate(), date);
    EXPECT_NE(task->id, restored(bare)->id);

    SavedTask odd = bare;
    odd.category = "books";
    odd.downloadType = "http";
    odd.totalSize = std::int64_t{1} << 62U;
    odd.progress = 7;
    const auto clamped = restored(odd);
    EXPECT_EQ(clamped->category(), ResearchCategory::uncategorized);
    EXPECT_EQ(clamped->downloadType, DownloadType::http);
    EXPECT_EQ(clamped->progress(), 1.0);
    EXPECT_EQ(clamped->downloadedBytes(), odd.totalSize);
}

}  // namespace
}  // namespace skein
