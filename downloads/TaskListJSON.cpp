#include "downloads/TaskListJSON.h"

#include "public/common/PlainJSON.h"

#include <boost/json/value.hpp>

namespace skein {

namespace {

namespace json = boost::json;

json::value orNull(const TorrentTask::Text& text) { return text ? json::value(*text) : json::value(nullptr); }

}  // namespace

json::object taskAsObject(const TorrentTask& task) {
    return {{"infoHash", task.infoHash},
            {"name", task.getDisplayName()},
            {"status", textOf(task.status())},
            {"progress", task.progress()},
            {"totalSize", task.totalSize()},
            {"downloadedBytes", task.downloadedBytes()},
            {"downloadSpeed", task.downloadSpeed()},
            {"uploadSpeed", task.uploadSpeed()},
            {"peerCount", task.peerCount()},
            {"downloadType", textOf(task.downloadType)},
            {"magnetURI", orNull(task.magnetURI)},
            {"downloadURL", orNull(task.downloadURL)},
            {"category", textOf(task.category())},
            {"notes", task.notes()},
            {"ownerUserID", orNull(task.ownerUserID())},
            {"accelerateEnabled", task.accelerateEnabled()},
            {"errorMessage", orNull(task.errorMessage())},
            {"statusMessage", orNull(task.statusMessage())},
            {"stallReason", orNull(task.stallReason())},
            {"currencyEarned", task.currencyEarned()},
            {"currencySpent", task.currencySpent()},
            {"dlBytesFromPlatformPeers", task.dlBytesFromPlatformPeers()},
            {"dlBytesFromPublicBT", task.dlBytesFromPublicBT()},
            {"dlBytesFromRelay", task.dlBytesFromRelay()},
            {"uncommittedDlBytesFromPlatformPeers", task.uncommittedDlBytesFromPlatformPeers()},
            {"uncommittedDlBytesFromPublicBT", task.uncommittedDlBytesFromPublicBT()},
            {"uncommittedDlBytesFromRelay", task.uncommittedDlBytesFromRelay()}};
}

std::string taskAsJSON(const TorrentTask& task) { return plainJSON(taskAsObject(task)); }

}  // namespace skein
