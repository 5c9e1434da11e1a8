#include "downloads/SavedTaskCodec.h"
#include "downloads/TaskStore.h"
#include "public/common/ThreadPools.h"
#include "public/common/WholeFile.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

namespace skein {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using testing::SizeIs;

class TaskStoreTest : public testing::Test {
protected:
    ~TaskStoreTest() override { simulation.finish(store->stop()); }
    void open() {
        store.emplace(strand, simulation.executor(), simulation, log, temporary.path(), [this] {
            ++snapshots;
            return tasks;
        });
    }
    void restart() {
        simulation.finish(store->stop());
        open();
        tasks = simulation.finish(store->loadSavedTasks());
    }
    std::optional<std::size_t> stored() {
        if (!fs::exists(file)) return std::nullopt;
        return SavedTaskCodec::decode(contentsOf(file)).value().size();
    }
    static std::string contentsOf(const fs::path& path) { return std::string(asText(readWholeFile(path, 1'000'000))); }
    void add(int count = 1) {
        for (int i = 0; i < count; ++i) {
            tasks.push_back({.infoHash = "h", .name = "n"});
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

    void SetUp() override { open(); }
};

TEST_F(TaskStoreTest, writesTheFirstChangeAtOnceABurstSeldomAndTheRestWhenItStops) {
    EXPECT_THAT(simulation.finish(store->loadSavedTasks()), SizeIs(0));
    add();
    EXPECT_EQ(stored(), 1U);
    for (int i = 0; i < 20; ++i) {
        add(100);
        simulation.advance(50ms);
    }
    EXPECT_EQ(snapshots, 6);
    EXPECT_EQ(stored(), 2001U);
    EXPECT_EQ(simulation.sleepers(), 0U);
    add();
    add();
    restart();
    EXPECT_THAT(tasks, SizeIs(2003));
    const int before = snapshots;
    simulation.finish(store->stop());
    EXPECT_EQ(snapshots, before) << "nothing had changed";
}

TEST_F(TaskStoreTest, aListBegunBeforeTheSavedOneIsReadDoesNotReplaceIt) {
    simulation.finish(store->loadSavedTasks());
    add(3);
    restart();
    simulation.finish(store->stop());
    open();
    tasks.clear();
    add();
    simulation.advance(1s);
    simulation.finish(store->stop());
    EXPECT_EQ(stored(), 3U);
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
    EXPECT_THAT(log.lines(), SizeIs(2));
    restart();
    EXPECT_THAT(tasks, SizeIs(1));
}

TEST_F(TaskStoreTest, aFailedSaveIsToldOnceAndRepeatedWithTheNextChange) {
    simulation.finish(store->loadSavedTasks());
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

TEST_F(TaskStoreTest, savesWhileOtherThreadsGoOn) {
    ThreadPools pools;
    RealClock clock;
    const Strand main{pools.io()};
    {
        TaskStore real(main, pools.disk(), clock, log, temporary.path(), [this] { return tasks; });
        asio::co_spawn(main, real.loadSavedTasks(), asio::use_future).get();
        for (int i = 0; i < 50; ++i)
            asio::post(main, [&] {
                tasks.push_back({.infoHash = "h", .name = "n"});
                real.saveTasks();
            });
        asio::co_spawn(main, real.stop(), asio::use_future).get();
    }
    EXPECT_EQ(stored(), 50U);
}

}  // namespace
}  // namespace skein
