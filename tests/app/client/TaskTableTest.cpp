#include "app/RowJSON.h"
#include "app/TextWidth.h"
#include "app/client/TaskDetails.h"
#include "app/client/TaskTable.h"
#include "downloads/TaskListJSON.h"
#include "public/common/MsgCenter/MsgCenter.h"

#include <gmock/gmock.h>

namespace skein {
namespace {

namespace json = boost::json;
using testing::AllOf, testing::HasSubstr, testing::Not;

json::object taskNamed(const std::string& name) {
    return {{"number", 12},
            {"name", name},
            {"totalSize", 5},
            {"progress", 0.9999},
            {"status", "fetchingMetadata"},
            {"downloadSpeed", 0},
            {"uploadSpeed", 2048},
            {"peerCount", 3}};
}

TEST(TaskTable, fitsTheTerminalWhateverTheName) {
    for (const std::string name : {"", "論文の全集.pdf", "e\u0301tude 🎵🎵🎵🎵🎵🎵🎵🎵🎵🎵🎵🎵🎵", "\x1B[2J\xFF\t\n"})
        for (std::size_t width = 16; width <= 200; ++width) {
            const TaskTable table(width);
            EXPECT_EQ(columnsOf(table.header()), width);
            EXPECT_EQ(columnsOf(table.row(taskNamed(name + std::string(width, 'x')))), width) << name;
            EXPECT_EQ(columnsOf(table.row(taskNamed(name))), width) << name;
        }
    const std::string row = taskTable(json::array{taskNamed("\x1B[2J論文" + std::string(200, 'x'))}, 100);
    EXPECT_THAT(row, HasSubstr(" 12 ?[2J論文xxxx"));
    EXPECT_THAT(row, HasSubstr("…        5 B   99.9%  Fetching metada…            -    2.0 KiB/s     3\n"));
    EXPECT_EQ(TaskTable(80).header(),
              "  # NAME                SIZE    DONE  STATUS                   DOWN           UP");
    EXPECT_EQ(taskTotals({taskNamed("a"), taskNamed("b")}), "2 tasks, 0 B/s down, 4.0 KiB/s up");
}

TEST(TaskTable, anUnknownSizeHasNoPercentageAndACheckHasOne) {
    json::object task = taskNamed("stream");
    task["totalSize"] = 0;
    task["downloadedBytes"] = 3'355'443;
    EXPECT_THAT(TaskTable(100).row(task), HasSubstr("   3.2 MiB+       -  "));
    task["status"] = "completed";
    task["progress"] = 1.0;
    EXPECT_THAT(TaskTable(100).row(task), HasSubstr("     0 B  100.0%  Completed  "));
    task["status"] = "downloading";
    task["verifyProgress"] = 0.456;
    EXPECT_THAT(TaskTable(100).row(task), HasSubstr("  Verifying 45%  "));
    ::setenv("LC_ALL", "zh_CN.UTF-8", 1);
    task["verifyProgress"] = nullptr;
    EXPECT_THAT(TaskTable(100).row(task), HasSubstr("  下载中  "));
    ::unsetenv("LC_ALL");
}

TEST(TaskDetails, nameThingsInTheLanguageOfTheUser) {
    MsgCenter center;
    json::object task = taskAsObject(TorrentTask(center, {.infoHash = "aa"}));
    task["category"] = "book";
    task["status"] = "paused";
    task["creationDate"] = nullptr;
    task["remainingTime"] = nullptr;
    task["controlOperationMessage"] = "正在暂停，请稍候…";
    task["files"] = json::array();
    PeerRuntimeInfo peer{.address = {"10.0.0.1", 1}, .clientName = "Ours 1.0", .downloadRate = 2048};
    peer.isConnected = true;
    task["peers"] = {toJSON(peer), toJSON(PeerRuntimeInfo())};
    task["trackers"] = {toJSON(TrackerRuntimeInfo{.id = "", .url = "udp://t:1", .scheme = "udp"})};
    EXPECT_THAT(taskDetails(task),
                AllOf(HasSubstr("status:      Paused\n"), HasSubstr("please wait: Pausing, please wait…\n"),
                      HasSubstr("category:    Books\n"), HasSubstr("tracker:     udp://t:1 Idle\n"),
                      HasSubstr("peer:        10.0.0.1:1  Incoming, TCP, Ours 1.0, has 0.0%, 2.0 KiB/s down, "),
                      Not(HasSubstr("peer:        :0"))));
    ::setenv("LC_ALL", "zh_CN.UTF-8", 1);
    EXPECT_THAT(taskDetails(task), AllOf(HasSubstr(" 已暂停\n"), HasSubstr("正在暂停，请稍候…\n"), HasSubstr(" 书籍\n"),
                                         HasSubstr("udp://t:1 等待\n"), HasSubstr("10.0.0.1:1  被动, TCP, Ours 1.0")));
    ::unsetenv("LC_ALL");
}

TEST(TextWidth, countsColumnsAndCutsBetweenCharacters) {
    EXPECT_EQ(columnsOf("aé論한🎵e\u0301\u200B"), 1U + 1 + 2 + 2 + 2 + 1);
    EXPECT_EQ(fitted("論文", 4), "論文");
    EXPECT_EQ(fitted("論文", 5), "論文 ");
    EXPECT_EQ(fitted("論文集", 5), "論文…");
    EXPECT_EQ(fitted("論文集", 4), "論… ");
    EXPECT_EQ(fitted("論文集", 1), "…");
    EXPECT_EQ(fitted("論文集", 0), "");
    EXPECT_EQ(fitted("\xE8", 3), "\xE8  ") << "half a character";
}

}  // namespace
}  // namespace skein
