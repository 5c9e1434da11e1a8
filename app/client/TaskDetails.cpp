#include "app/client/TaskDetails.h"

#include "app/Quantities.h"
#include "app/TextWidth.h"
#include "app/client/TaskFields.h"
#include "public/common/Printable.h"

#include <boost/json/array.hpp>
#include <boost/json/value.hpp>

#include <chrono>
#include <cstdio>

namespace skein {

namespace {

namespace json = boost::json;
using namespace task_fields;

std::string sizeOf(const json::object& task) {
    if (isSizeKnown(task)) return formatByteCount(number(task, "totalSize")) + ", " + percent(task) + " done";
    return formatByteCount(number(task, "downloadedBytes")) + " of unknown size";
}

/// The estimate of the moment beside what the service has confirmed; empty while nothing was earned or spent.
std::string creditOf(const json::object& task, std::string_view estimate, std::string_view confirmed) {
    const double amount = task.at(estimate).to_number<double>();
    const double certain = task.at(confirmed).to_number<double>();
    if (amount == 0 && certain == 0) return {};
    char shown[96];
    std::snprintf(shown, sizeof shown, "%.4f estimated, %.4f confirmed", amount, certain);
    return shown;
}

std::string uploadOf(const json::object& task) {
    std::string shown = formatByteCount(number(task, "uploadedBytes"));
    if (!task.at("ratio").is_number()) return shown;
    char ratio[32];
    std::snprintf(ratio, sizeof ratio, ", ratio %.2f", task.at("ratio").to_number<double>());
    return shown + ratio;
}

std::string dateOf(const json::value& seconds) {
    if (!seconds.is_number()) return {};
    return formatDate(
        std::chrono::sys_seconds(std::chrono::seconds(static_cast<std::int64_t>(seconds.to_number<double>()))));
}

std::string peerOf(const json::object& peer) {
    const std::string client = text(peer, "client");
    return text(peer, "address") + "  " + peerLinkName(peer) + (client.empty() ? "" : ", " + client) + ", has " +
           percent(peer) + ", " + formatByteCount(number(peer, "downloadRate")) + "/s down, " +
           formatByteCount(number(peer, "uploadRate")) + "/s up";
}

}  // namespace

std::string taskDetails(const json::object& task) {
    std::string shown;
    const auto line = [&](const std::string& label, const std::string& content) {
        if (!content.empty()) shown += fitted(label + ":", 13) + printable(content) + "\n";
    };
    line("name", text(task, "name"));
    line("info hash", text(task, "infoHash"));
    line("status", statusName(task));
    line("please wait", controlMessage(task));
    const auto share = verifying(task);
    line("message", text(task, "statusMessage") + (share ? " " + *share : ""));
    line("error", text(task, "errorMessage"));
    line("why", text(task, "stallReason"));
    line("size", sizeOf(task));
    line("left", text(task, "remainingTime"));
    if (text(task, "downloadType") == "torrent") line("sent", uploadOf(task));
    line("folder", text(task, "folder"));
    line("added", dateOf(task.at("addedDate")));
    line("created", dateOf(task.at("creationDate")));
    if (task.at("isPrivate").is_bool()) line("private", task.at("isPrivate").as_bool() ? "yes" : "no");
    line("earned", creditOf(task, "currencyEarned", "currencyEarnedConfirmed"));
    line("spent", creditOf(task, "currencySpent", "currencySpentConfirmed"));
    line("category", categoryName(task));
    line("notes", text(task, "notes"));
    for (const json::value& tracker : task.at("trackers").as_array())
        line("tracker", text(tracker.as_object(), "url") + " " + trackerStatusName(tracker.as_object()));
    for (const json::value& row : task.at("peers").as_array())
        if (row.at("connected").as_bool()) line("peer", peerOf(row.as_object()));
    for (const json::value& row : task.at("files").as_array()) {
        const json::object& file = row.as_object();
        const std::string location = text(file, "location");
        shown += rightAligned(formatByteCount(number(file, "size")), 12) + rightAligned(percent(file), 8) + "  " +
                 printable(location.empty() ? text(file, "path") : location) +
                 (file.at("isAvailable").as_bool() ? "" : "  (not all there)") + "\n";
    }
    return shown;
}

}  // namespace skein
