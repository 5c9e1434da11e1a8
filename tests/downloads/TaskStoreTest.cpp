#include "downloads/SavedTaskCodec.h"
#include "downloads/TaskStore.h"
#include "downloads/TorrentTask.h"
#include "public/common/ThreadPools.h"
#include "public/common/WholeFile.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using testing::SizeIs;

const Clock::WallTime date{std::chrono::seconds(978'307'200) + 250ms};
const SavedTask bare{.infoHash = "h", .name = "n", .addedDate = date};

std::shared_ptr<TorrentTask> restored(SavedTask task) {
    static MsgCenter center;
    SecureRandom random;
    return std::move(task).restore(center, random);
}

TEST(SavedTaskTest, isOneRecordWithItsKeysInOrder) {
    const FileList files({{"a/b", 1, 2}});
    const SavedTask full{
        "h", "名 \"\x01\xff", "magnet:?", date, "paused", std::int64_t{1} << 60U, 0.5, files, "paper", "",
        "u", "torrent",       "me",       true};
    const std::string text = SavedTaskCodec::encode(std::vector{full, bare});
    EXPECT_EQ(text, R"([{"infoHash":"h","name":"名 \"\u0001)"
                    "\xff"
                    R"(","magnetURI":"magnet:?","addedDate":0.25,"status":"paused","totalSize":1152921504606846976,)"
                    R"("progress":0.5,"files":[{"path":"a/b","size":1,"offset":2}],"category":"paper","notes":"",)"
                    R"("downloadURL":"u","downloadType":"torrent","ownerUserID":"me","accelerateEnabled":true},)"
                    R"({"infoHash":"h","name":"n","addedDate":0.25}])");
    EXPECT_EQ(SavedTaskCodec::decode(text), std::vector({full, bare}));
}

TEST(SavedTaskTest, aListWithOneBadRecordIsNone) {
    const std::string good = R"({"infoHash":"h","name":"n","addedDate":0.25)";
    EXPECT_EQ(SavedTaskCodec::decode("[" + good + R"(,"status":null,"future":{"a":[]}}])"), std::vector{bare});
    for (const char* more : {R"(,"status":1)", R"(,"totalSize":1.5)", R"(,"totalSize":1e30)", R"(,"files":{})",
                             R"(,"files":[{"path":"a","size":1}])", R"(,"accelerateEnabled":1)", R"(,"progress":"1")",
                             R"(,"name":null)", R"(,"addedDate":"now")"})
        EXPECT_EQ(SavedTaskCodec::decode("[" + good + "}," + good + more + "}]"), std::nullopt) << more;
    for (const char* text : {"", "{}", "null", "[1]", "[", "[{}]", R"([{"infoHash":"h","name":"n"}])"})
        EXPECT_EQ(SavedTaskCodec::decode(text), std::nullopt) << text;
    EXPECT_TRUE(SavedTaskCodec::decode(R"([{"infoHash":"h","name":"n","addedDate":-1e300}])"));
}

TEST(SavedTaskTest, comesBackPausedOrCompletedWithWhatIsMissingAtItsDefault) {
    const auto task = restored(bare);
    EXPECT_NE(task->id, restored(bare)->id);
    EXPECT_EQ(task->addedDate(), date);
    EXPECT_EQ(task->downloadType, DownloadType::torrent);
    task->status.set(TaskStatus::downloading);
    EXPECT_EQ(restored(SavedTask::of(*task))->status(), TaskStatus::paused);
    task->status.set(TaskStatus::seeding);
    EXPECT_EQ(SavedTask::of(*task).status, "completed");
    EXPECT_EQ(restored(SavedTask::of(*task))->status(), TaskStatus::completed);

    const auto odd = restored({.totalSize = 9, .progress = 7, .category = "books", .downloadType = "http"});
    EXPECT_EQ(odd->category(), ResearchCategory::uncategorized);
    EXPECT_EQ(odd->downloadType, DownloadType::http);
    EXPECT_EQ(odd->downloadedBytes(), 9);
    EXPECT_EQ(odd->uploadedBytes(), 0);
    task->uploadedBytes.set(7);
    EXPECT_EQ(restored(SavedTask::of(*task))->uploadedBytes(), 7);
    EXPECT_EQ(restored({.uploadedBytes = -1})->uploadedBytes(), 0);
    task->number.set(5);
    EXPECT_EQ(restored(SavedTask::of(*task))->number(), 5);
    EXPECT_EQ(restored({.number = -1})->number(), 0);
}

TEST(SavedTaskTest, aDisplayNameOfAnOlderListIsUnderstood) {
    for (const auto& [saved, status] : {std::pair{"已完成", TaskStatus::completed},
                                        {"completed", TaskStatus::completed},
                                        {"已暂停", TaskStatus::paused},
                                        {"做种中", TaskStatus::paused}})
        EXPECT_EQ(restored({.status = saved})->status(), status) << saved;
    for (const auto& [saved, status] : {std::pair{"获取元数据...", TaskStatus::fetchingMetadata},
                                        {"下载中", TaskStatus::downloading},
                                        {"做种中", TaskStatus::seeding},
                                        {"出错", TaskStatus::error}})
        EXPECT_EQ(taskStatusFrom(saved), status) << saved;
    EXPECT_EQ(restored({.category = "数据集"})->category(), ResearchCategory::dataset);
    EXPECT_EQ(restored({.category = "论文"})->category(), ResearchCategory::paper);
}

class TaskStoreTest : public testing::Test {
protected:
    ~TaskStoreTest() override { simulation.finish(store->stop()); }
    void open() {
        const auto snapshot = [this] { return ++snapshots, tasks; };
        store.emplace(strand, simulation.executor(), simulation, log, temporary.path(), snapshot);
    }
    void restart() {
        if (store) simulation.finish(store->stop());
        open();
        tasks = simulation.finish(store->loadSavedTasks());
    }
    static std::string contentsOf(const fs::path& path) { return std::string(asText(readWholeFile(path, 1'000'000))); }
    std::size_t stored() { return SavedTaskCodec::decode(contentsOf(file)).value().size(); }
    void add(int count = 1) {
        for (int i = 0; i < count; ++i) {
            tasks.push_back(bare);
            store->saveTasks();
        }
        simulation.settle();
    }

    Simulation simulation;
    const Strand strand{simulation.executor()};
    RecordingLogger log;
    const TemporaryFolder temporary;
    const fs::path file = temporary.path() / TaskStore::tasksFile;
    std::vector<SavedTask> tasks;
    int snapshots = 0;
    std::optional<TaskStore> store;
};

TEST_F(TaskStoreTest, writesTheFirstChangeAtOnceABurstSeldomAndTheRestWhenItStops) {
    restart();
    add();
    EXPECT_EQ(stored(), 1U);
    for (int i = 0; i < 20; ++i) {
        add(100);
        simulation.advance(50ms);
    }
    EXPECT_EQ(snapshots, 6);
    EXPECT_EQ(stored(), 2001U);
    EXPECT_EQ(simulation.sleepers(), 0U);
    add(2);
    restart();
    EXPECT_THAT(tasks, SizeIs(2003));
    restart();
    EXPECT_EQ(snapshots, 7) << "nothing had changed";
    simulation.finish(store->stop());
    open();
    tasks.clear();
    add();
    simulation.advance(1s);
    simulation.finish(store->stop());
    EXPECT_EQ(stored(), 2003U) << "a list begun without the saved one does not replace it";
}

TEST_F(TaskStoreTest, whatDoesNotDecodeIsKeptAsideBeforeTheNextSave) {
    for (const char* damaged : {"{first", "[{}]"}) {
        replaceWholeFile(file, toBytes(damaged));
        restart();
        EXPECT_THAT(tasks, SizeIs(0));
        EXPECT_EQ(contentsOf(file), damaged);
        add();
        EXPECT_EQ(stored(), 1U);
    }
    EXPECT_EQ(contentsOf(file.string() + ".damaged"), "{first");
    EXPECT_EQ(contentsOf(file.string() + ".damaged.2"), "[{}]");
}

TEST_F(TaskStoreTest, aFailedSaveIsToldOnceAndRepeatedWithTheNextChange) {
    restart();
    fs::create_directories(file / "in the way");
    add();
    simulation.advance(10s);
    EXPECT_EQ(snapshots, 1);
    add();
    EXPECT_EQ(snapshots, 2);
    EXPECT_THAT(log.lines(), testing::ElementsAre(testing::HasSubstr(" failed: ")));
    fs::remove_all(file);
    restart();
    EXPECT_THAT(tasks, SizeIs(2));
}

TEST_F(TaskStoreTest, manyWhoWaitShareOneWriteAndHearOfAFailure) {
    restart();
    add();
    const auto tellApart = [&](bool isSaved) {
        const int before = snapshots;
        std::vector<std::future<bool>> waiting;
        for (int i = 0; i < 100; ++i) {
            tasks.push_back(bare);
            store->saveTasks();
            waiting.push_back(simulation.begin(store->saveNow()));
        }
        simulation.settle();
        for (auto& one : waiting) EXPECT_EQ(one.get(), isSaved);
        EXPECT_LE(snapshots - before, 2);
    };
    tellApart(true);
    EXPECT_EQ(stored(), 101U);
    fs::remove(file);
    fs::create_directories(file / "in the way");
    tellApart(false);
    fs::remove_all(file);
    EXPECT_TRUE(simulation.finish(store->saveNow()));
}

TEST_F(TaskStoreTest, savesWhileOtherThreadsGoOn) {
    open();
    ThreadPools pools;
    RealClock clock;
    const Strand main{pools.io()};
    TaskStore real(main, pools.disk(), clock, log, temporary.path(), [this] { return tasks; });
    asio::co_spawn(main, real.loadSavedTasks(), asio::use_future).get();
    for (int i = 0; i < 50; ++i) asio::post(main, [&] { tasks.push_back(bare), real.saveTasks(); });
    asio::co_spawn(main, real.stop(), asio::use_future).get();
    EXPECT_EQ(stored(), 50U);
}

}  // namespace
}  // namespace skein
