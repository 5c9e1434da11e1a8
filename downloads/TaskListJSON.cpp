#include "downloads/TaskListJSON.h"

#include "public/common/PlainJSON.h"

#include <boost/json/value.hpp>

#include <chrono>
#include <optional>

namespace skein {

namespace {

namespace json = boost::json;

template <class T>
json::value orNull(const std::optional<T>& value) {
    return value ? json::value(*value) : json::value(nullptr);
}

}  // namespace

json::object taskAsObject(const TorrentTask& task) {
    const auto eta = task.eta();
    const auto& stall = task.stallReason();
    return {{"infoHash", task.infoHash},
            {"number", task.number()},
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
            {"stallReason", stall ? json::value(stall->sentence()) : json::value(nullptr)},
            {"stallCause", stall ? json::value(textOf(stall->cause)) : json::value(nullptr)},
            {"stallDetail", stall ? orNull(stall->detail) : json::value(nullptr)},
            {"currencyEarned", task.currencyEarned()},
            {"currencySpent", task.currencySpent()},
            {"dlBytesFromPlatformPeers", task.dlBytesFromPlatformPeers()},
            {"dlBytesFromPublicBT", task.dlBytesFromPublicBT()},
            {"dlBytesFromRelay", task.dlBytesFromRelay()},
            {"uncommittedDlBytesFromPlatformPeers", task.uncommittedDlBytesFromPlatformPeers()},
            {"uncommittedDlBytesFromPublicBT", task.uncommittedDlBytesFromPublicBT()},
            {"uncommittedDlBytesFromRelay", task.uncommittedDlBytesFromRelay()},
            {"folder", task.folder().string()},
            {"addedDate", std::chrono::duration<double>(task.addedDate().time_since_epoch()).count()},
            {"isPrivate", orNull(task.isPrivate())},
            {"uploadedBytes", task.uploadedBytes()},
            {"ratio", orNull(task.ratio())},
            {"eta", eta ? json::value(eta->count()) : json::value(nullptr)},
            {"verifyProgress", orNull(task.verifyProgress())},
            {"currencyEarnedConfirmed", task.currencyEarnedConfirmed()},
            {"currencySpentConfirmed", task.currencySpentConfirmed()},
            {"uncommittedUploadedBytes", task.uncommittedUploadedBytes}};
}

std::string taskAsJSON(const TorrentTask& task) { return plainJSON(taskAsObject(task)); }

}  // namespace skein
