#include "downloads/TaskListJSON.h"
#include "downloads/TorrentTask.h"
#include "tests/support/Simulation.h"

#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

namespace skein {
namespace {

using testing::ElementsAre;

class TorrentTaskTest : public testing::Test {
protected:
    TorrentTask taskOf(TaskIdentity identity) { return {center, std::move(identity)}; }
    std::vector<TaskFields> published() {
        simulation.settle();
        return std::exchange(changes, {});
    }

    Simulation simulation;
    SecureRandom random;
    MsgCenter center;
    const UUID id = UUID::random(random);
    std::vector<TaskFields> changes;
    const Subscription subscription = center.subscribe<TaskChanged>(simulation.executor(), [this](const auto& change) {
        EXPECT_EQ(change.id, id);
        changes.push_back(change.fields);
    });
    TorrentTask task{center, {.id = id, .infoHash = std::string(40, 'a')}};
};

TEST_F(TorrentTaskTest, tellsOnceOfWhatChangedAndNothingOfWhatDidNot) {
    task.name.set("name");
    EXPECT_THAT(published(), ElementsAre(TaskFields(TaskField::name)));
    task.name.set("name");
    task.status.set(TaskStatus::paused);
    EXPECT_THAT(published(), ElementsAre());
    {
        const auto outer = task.batch();
        const auto inner = task.batch();
        task.progress.set(0.5);
        task.peerDetailStore.replace({PeerRuntimeInfo()});
    }
    EXPECT_THAT(published(), ElementsAre(TaskField::progress | TaskFields(TaskField::peerDetails)));
    task.pieceCount.set(3);
    published();
    task.markCompleted();
    EXPECT_THAT(published(), ElementsAre(TaskField::status | TaskFields(TaskField::progress) | TaskField::pieceBitmap));
    EXPECT_THAT(task.pieceBitmap(), ElementsAre(true, true, true));
}

TEST_F(TorrentTaskTest, aFilesProgressIsThatOfItsPieces) {
    task.status.set(TaskStatus::downloading);
    task.progress.set(0.3);
    const TorrentFileInfo inside{"a", 5, 12};
    EXPECT_EQ(task.fileProgress(inside), 0.3);
    task.pieceLength.set(10);
    task.pieceBitmap.set({true, false, true, true});
    EXPECT_EQ(task.fileProgress(inside), 0.0);
    EXPECT_EQ(task.fileProgress({"ends on a boundary", 10, 0}), 1.0);
    EXPECT_EQ(task.fileProgress({"two pieces", 11, 0}), 0.5);
    EXPECT_EQ(task.fileProgress({"empty", 0, 20}), 1.0);
    EXPECT_EQ(task.fileProgress({"longer than known", 1000, 5}), 0.75);
    EXPECT_EQ(task.fileProgress({"beyond", 5, 1000}), 1.0);
    EXPECT_EQ(task.fileProgress({"absurd", std::numeric_limits<std::int64_t>::max(), 1}), 0.3);
    task.status.set(TaskStatus::seeding);
    EXPECT_EQ(task.fileProgress(inside), 1.0);
}

TEST_F(TorrentTaskTest, isDescribedForPeople) {
    task.totalSize.set(10'000'000);
    EXPECT_EQ(task.remainingTime(), std::nullopt);
    task.downloadSpeed.set(2048);
    EXPECT_EQ(task.formattedSpeed(), "2.0 KiB/s");
    EXPECT_EQ(task.remainingTime(), "1 h 21 min");
    task.downloadedBytes.set(9'900'000);
    EXPECT_EQ(task.remainingTime(), "49 s");
    task.downloadSpeed.set(500);
    EXPECT_EQ(task.remainingTime(), "3 min 20 s");
    task.status.set(TaskStatus::completed);
    EXPECT_EQ(task.remainingTime(), std::nullopt);

    EXPECT_EQ(task.getDisplayName(), task.infoHash);
    const std::string magnet = "magnet:?xt=urn:btih:" + task.infoHash + "&dn=a%20name";
    EXPECT_EQ(taskOf({.infoHash = "x", .magnetURI = magnet}).getDisplayName(), "a name");
    EXPECT_EQ(taskOf({.infoHash = "x", .magnetURI = "magnet:?xt="}).getDisplayName(), "x");
    EXPECT_EQ(taskOf({.infoHash = "x", .downloadURL = "http://host/a/file.zip?b=/c"}).getDisplayName(), "file.zip");
    EXPECT_EQ(taskOf({.infoHash = "x", .downloadURL = "http://host/"}).getDisplayName(), "host");

    EXPECT_EQ(taskStatusFrom("已暂停"), TaskStatus::paused);
    EXPECT_EQ(taskStatusFrom("seeding"), TaskStatus::seeding);
    EXPECT_EQ(taskStatusFrom("Paused"), std::nullopt);
    EXPECT_EQ(localizedName(ResearchCategory::dataset, Language::chinese), "数据集");
    EXPECT_THAT(id.text(),
                testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
}

TEST_F(TorrentTaskTest, isListedWithAllKeys) {
    task.name.set("\"name\"\n");
    task.currencyEarned.set(0.25);
    const auto row = boost::json::parse(taskAsJSON(task)).as_object();
    EXPECT_EQ(row.size(), 27U);
    EXPECT_EQ(row.at("name"), "\"name\"\n");
    EXPECT_EQ(row.at("status"), "paused");
    EXPECT_EQ(row.at("currencyEarned"), 0.25);
    EXPECT_TRUE(row.at("errorMessage").is_null());
    EXPECT_TRUE(row.at("totalSize").is_int64());
}

}  // namespace
}  // namespace skein
