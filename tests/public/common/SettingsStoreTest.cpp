#include "public/common/FileLogger.h"
#include "public/common/SettingsStore.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <limits>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace skein {
namespace {

class SettingsStoreTest : public testing::Test {
protected:
    const TemporaryFolder folder;
    const std::filesystem::path file = folder.path() / "home" / "settings.db";
    FileLogger log;
};

TEST_F(SettingsStoreTest, everyTypeComesBackAsItWasAfterReopening) {
    const std::map<std::string, SettingValue> values{{"bytes", Bytes{0, 1, 0xFF}},
                                                     {"flag", true},
                                                     {"none", Bytes{}},
                                                     {"number", std::numeric_limits<std::int64_t>::min()},
                                                     {"one", std::int64_t{1}},
                                                     {"real", 0.1},
                                                     {"text", std::string("猫\0\n", 5)},
                                                     {"empty", std::string()}};
    {
        SettingsStore store(file, log);
        for (const auto& [key, value] : values) store.set(key, value);
        store.set("gone", true);
        EXPECT_TRUE(store.unset("gone"));
        EXPECT_FALSE(store.unset("gone"));
    }
    SettingsStore store(file, log);
    EXPECT_EQ(store.list(), values);
    EXPECT_EQ(store.get("gone"), std::nullopt);
    using std::filesystem::perms;
    EXPECT_EQ(std::filesystem::status(file).permissions(), perms::owner_read | perms::owner_write);
}

TEST_F(SettingsStoreTest, typedReadsTakeTextThatReadsAsTheType) {
    SettingsStore store(file, log);
    store.set("port", "8080");
    store.set("odd", "8080x");
    store.set("no", "no");
    store.set("count", std::int64_t{7});
    const std::vector numbers{store.number("port"), store.number("count"), store.number("odd")};
    EXPECT_THAT(numbers, testing::ElementsAre(8080, 7, std::nullopt));
    const std::vector flags{store.flag("no"), store.flag("count"), store.flag("port")};
    EXPECT_THAT(flags, testing::ElementsAre(false, true, std::nullopt));
    EXPECT_EQ(store.text("count"), std::nullopt);
    EXPECT_EQ(describe(0.1) + describe(true) + describe(Bytes{0xAB}), "0.1trueab");
}

TEST_F(SettingsStoreTest, updatesOfManyThreadsThroughTwoOpenStoresAllCount) {
    SettingsStore first(file, log);
    SettingsStore second(file, log);
    const auto increment = [](std::optional<SettingValue> before) -> std::optional<SettingValue> {
        return std::get<std::int64_t>(before.value_or(std::int64_t{0})) + 1;
    };
    std::vector<std::thread> threads;
    for (SettingsStore* store : {&first, &second, &first, &second})
        threads.emplace_back([store, &increment] {
            for (int i = 0; i < 25; ++i) store->update("count", increment);
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(first.number("count"), 100);
    second.update("count", [](const auto&) { return std::nullopt; });
    EXPECT_EQ(first.get("count"), std::nullopt);
    EXPECT_THROW(first.update("count", [](const auto&) -> std::optional<SettingValue> { throw std::out_of_range(""); }),
                 std::out_of_range);
    second.set("count", true);
}

/// Writes 1, 2, 3, … and says so on `pipe` each time, until it is killed.
[[noreturn]] void writeForEver(const std::filesystem::path& file, std::int64_t from, int pipe) {
    FileLogger log;
    SettingsStore store(file, log);
    for (std::int64_t i = from;; ++i) {
        store.set("count", i);
        store.set("padding", Bytes(static_cast<std::size_t>(i * 37 % 20'000)));
        if (::write(pipe, &i, sizeof i) != sizeof i) _exit(1);
    }
}

TEST_F(SettingsStoreTest, whatWasWrittenSurvivesAKillAtAnyMoment) {
    std::int64_t written = 0;
    for (int round = 0; round < 15; ++round) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) writeForEver(file, written + 1, ends[1]);
        close(ends[1]);
        for (int i = 0; i < 3 + round; ++i) ASSERT_EQ(read(ends[0], &written, sizeof written), ssize_t{sizeof written});
        std::this_thread::sleep_for(std::chrono::microseconds(round * 300));  // somewhere within the next write
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        while (read(ends[0], &written, sizeof written) > 0) {}
        close(ends[0]);
        SettingsStore store(file, log);
        const auto count = store.number("count");
        ASSERT_TRUE(count == written || count == written + 1) << written << " became " << count.value_or(-1);
    }
    EXPECT_FALSE(std::filesystem::exists(file.string() + ".damaged"));
}

TEST_F(SettingsStoreTest, aDamagedFileIsSetAsideAndAFreshOneBegunUnlessItsFolderCannotBe) {
    std::ofstream(folder.path() / "home") << "a file";
    EXPECT_THROW(SettingsStore(file, log), DatabaseException);
    std::filesystem::remove(folder.path() / "home");
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << std::string(10'000, 'x');
    {
        SettingsStore store(file, log);
        EXPECT_TRUE(store.list().empty());
        for (int i = 0; i < 200; ++i) store.set("key" + std::to_string(i), std::string(500, 'v'));
    }
    EXPECT_EQ(std::filesystem::file_size(file.string() + ".damaged"), 10'000U);

    std::fstream(file, std::ios::in | std::ios::out | std::ios::binary).seekp(8192) << std::string(4096, '\xEE');
    SettingsStore store(file, log);
    EXPECT_TRUE(store.list().empty());
    store.set("key", true);
    EXPECT_EQ(SettingsStore(file, log).flag("key"), true);
    EXPECT_GT(std::filesystem::file_size(file.string() + ".damaged"), 100'000U);
}

TEST_F(SettingsStoreTest, damageWhileStoresAreOpenIsMendedAtTheirNextUse) {
    const Bytes large(4 << 20);  // more than SQLite caches, so that it must look at the file
    SettingsStore(file, log).set("large", large);
    SettingsStore first(file, log);
    SettingsStore second(file, log);
    std::fstream(file, std::ios::in | std::ios::out | std::ios::binary) << std::string(3 << 20, 'x');
    EXPECT_EQ(first.bytes("large"), std::nullopt);
    EXPECT_TRUE(std::filesystem::exists(file.string() + ".damaged"));
    first.set("key", true);
    EXPECT_EQ(second.flag("key"), true);
}

}  // namespace
}  // namespace skein
