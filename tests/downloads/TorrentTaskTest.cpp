#include "downloads/TaskListJSON.h"
#include "downloads/TorrentTask.h"
#include "tests/support/Simulation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

namespace skein {
namespace {

using testing::ElementsAre;

class TorrentTaskTest : public testing::Test {
protected:
    std::string nameOf(TaskIdentity identity) { return TorrentTask(center, std::move(identity)).getDisplayName(); }
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
    EXPECT_EQ(task.remainingTime(), "1 h 21 min");
    task.downloadedBytes.set(9'900'000);
    EXPECT_EQ(task.remainingTime(), "49 s");
    task.downloadSpeed.set(500);
    EXPECT_EQ(task.remainingTime(), "3 min 20 s");
    task.status.set(TaskStatus::completed);
    EXPECT_EQ(task.remainingTime(), std::nullopt);

    EXPECT_THAT(taskAsJSON(task), testing::HasSubstr(R"("totalSize":10000000,"downloadedBytes":9900000,)"));
    EXPECT_THAT(taskAsJSON(task),
                testing::HasSubstr(R"("statusMessage":null,"stallReason":null,"stallCause":null,"stallDetail":null,)"));
    StallFacts full;
    full.storageProblem = "a: No space left on device";
    full.storageErrno = ENOSPC;
    task.stallReason.set(stallReasonOf(full));
    EXPECT_THAT(taskAsJSON(task),
                testing::HasSubstr(R"("stallCause":"diskFull","stallDetail":"a: No space left on device")"));
    EXPECT_EQ(task.getDisplayName(), task.infoHash);
    EXPECT_EQ(nameOf({.magnetURI = "magnet:?xt=urn:btih:" + task.infoHash + "&dn=a%20name"}), "a name");
    EXPECT_EQ(nameOf({.infoHash = "x", .magnetURI = "magnet:?xt="}), "x");
    EXPECT_EQ(nameOf({.downloadURL = "http://host/a/file.zip?b=/c"}), "file.zip");
    EXPECT_EQ(nameOf({.downloadURL = "http://host/"}), "host");

    EXPECT_EQ(taskStatusFrom("已暂停"), TaskStatus::paused);
    EXPECT_THAT(id.text(),
                testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
}

}  // namespace
}  // namespace skein
