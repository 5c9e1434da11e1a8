#include "app/client/TaskTable.h"

#include "Core/discovery/TrackerRuntimeInfo.h"
#include "app/Quantities.h"
#include "app/TextWidth.h"
#include "downloads/ResearchCategory.h"
#include "downloads/TaskStatus.h"
#include "public/common/Printable.h"

#include <boost/json/value.hpp>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <optional>
#include <sys/ioctl.h>
#include <unistd.h>

namespace skein {

namespace {

namespace json = boost::json;

constexpr std::size_t usualWidth = 100;
constexpr std::size_t leastName = 12;

enum class Column : std::uint8_t { number, name, size, done, status, down, up, peers };

struct Layout {
    Column column;
    std::string_view title;
    std::size_t width;  // 0: what is left
};

constexpr Layout layouts[] = {
    {Column::number, "#", 3},       {Column::name, "NAME", 0},  {Column::size, "SIZE", 11}, {Column::done, "DONE", 8},
    {Column::status, "STATUS", 18}, {Column::down, "DOWN", 13}, {Column::up, "UP", 13},     {Column::peers, "PEERS", 6},
};

constexpr Column firstToGo[] = {Column::peers, Column::up,     Column::size,  Column::down,
                                Column::done,  Column::status, Column::number};

constexpr unsigned bitOf(Column column) { return 1U << static_cast<unsigned>(column); }

std::string text(const json::object& task, std::string_view key) {
    const json::value& value = task.at(key);
    return value.is_string() ? std::string(value.as_string()) : std::string();
}
std::int64_t number(const json::object& task, std::string_view key) { return task.at(key).to_number<std::int64_t>(); }

std::string percent(const json::object& task) {
    char shown[16];
    std::snprintf(shown, sizeof shown, "%.1f%%", std::floor(task.at("progress").to_number<double>() * 1000) / 10);
    return shown;
}

bool hasAll(const json::object& task) {
    const auto status = taskStatusFrom(text(task, "status"));
    return status == TaskStatus::completed || status == TaskStatus::seeding;
}
bool isSizeKnown(const json::object& task) { return number(task, "totalSize") > 0 || hasAll(task); }

/// The share that has been checked, while files are.
std::optional<std::string> verifying(const json::object& task) {
    const json::value* const share = task.if_contains("verifyProgress");
    if (share == nullptr || !share->is_number()) return std::nullopt;
    return std::to_string(static_cast<int>(share->to_number<double>() * 100)) + "%";
}

std::string statusName(const json::object& task) {
    if (const auto share = verifying(task)) return "Verifying " + *share;
    const std::string raw = text(task, "status");
    const auto status = taskStatusFrom(raw);
    return status ? std::string(localizedName(*status)) : raw;
}

std::string categoryName(const json::object& task) {
    const std::string raw = text(task, "category");
    const auto category = researchCategoryFrom(raw);
    return category ? std::string(localizedName(*category)) : raw;
}

std::string trackerStatusName(const json::object& tracker) {
    std::string raw = text(tracker, "status");
    if (interfaceLanguage() == Language::chinese)
        for (const TrackerRuntimeStatus status : {TrackerRuntimeStatus::idle, TrackerRuntimeStatus::announcing,
                                                  TrackerRuntimeStatus::working, TrackerRuntimeStatus::failed})
            if (raw == textOf(status)) return std::string(displayNameOf(status));
    return raw;
}

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

std::string rate(std::int64_t bytes) { return bytes == 0 ? "-" : formatByteCount(bytes) + "/s"; }

}  // namespace

TaskTable::TaskTable(std::size_t width) {
    std::size_t others = 1;  // the blank before the name
    for (const Layout& layout : layouts) {
        shown_ |= bitOf(layout.column);
        others += layout.width;
    }
    for (const Column column : firstToGo) {
        if (others + leastName <= width) break;
        shown_ &= ~bitOf(column);
        others -= layouts[static_cast<std::size_t>(column)].width;
    }
    nameWidth_ = width > others ? width - others : 0;
}

/// Of what `cell` says of each column.
template <class Cell>
std::string TaskTable::line(Cell cell) const {
    std::string line;
    for (const Layout& layout : layouts) {
        if ((shown_ & bitOf(layout.column)) == 0) continue;
        const std::string content = cell(layout);
        switch (layout.column) {
            case Column::name: line += " " + fitted(content, nameWidth_); break;
            case Column::status: line += "  " + fitted(content, layout.width - 2); break;
            default: line += rightAligned(content, layout.width);
        }
    }
    return line;
}

std::string TaskTable::header() const {
    return line([](const Layout& layout) { return std::string(layout.title); });
}

std::string TaskTable::row(std::size_t position, const json::object& task) const {
    return line([&](const Layout& layout) {
        switch (layout.column) {
            case Column::number: return std::to_string(position);
            case Column::name: return printable(text(task, "name"));
            case Column::size:
                if (isSizeKnown(task)) return formatByteCount(number(task, "totalSize"));
                return formatByteCount(number(task, "downloadedBytes")) + "+";
            case Column::done: return isSizeKnown(task) ? percent(task) : "-";
            case Column::status: return statusName(task);
            case Column::down: return rate(number(task, "downloadSpeed"));
            case Column::up: return rate(number(task, "uploadSpeed"));
            case Column::peers: return std::to_string(number(task, "peerCount"));
        }
        return std::string();
    });
}

std::string taskTable(const json::array& tasks, std::size_t width) {
    const TaskTable layout(width);
    std::string table = layout.header() + "\n";
    std::size_t row = 0;
    for (const json::value& task : tasks) table += layout.row(++row, task.as_object()) + "\n";
    return table;
}

std::string taskTotals(const json::array& tasks) {
    std::int64_t down = 0;
    std::int64_t up = 0;
    for (const json::value& task : tasks) {
        down += number(task.as_object(), "downloadSpeed");
        up += number(task.as_object(), "uploadSpeed");
    }
    return std::to_string(tasks.size()) + (tasks.size() == 1 ? " task, " : " tasks, ") + formatByteCount(down) +
           "/s down, " + formatByteCount(up) + "/s up";
}

std::string taskDetails(const json::object& task) {
    std::string shown;
    const auto line = [&](const std::string& label, const std::string& content) {
        if (!content.empty()) shown += fitted(label + ":", 13) + printable(content) + "\n";
    };
    line("name", text(task, "name"));
    line("info hash", text(task, "infoHash"));
    line("status", statusName(task));
    line("please wait", text(task, "controlOperationMessage"));
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
    for (const json::value& row : task.at("files").as_array()) {
        const json::object& file = row.as_object();
        const std::string location = text(file, "location");
        shown += rightAligned(formatByteCount(number(file, "size")), 12) + rightAligned(percent(file), 8) + "  " +
                 printable(location.empty() ? text(file, "path") : location) +
                 (file.at("isAvailable").as_bool() ? "" : "  (not all there)") + "\n";
    }
    return shown;
}

std::size_t terminalWidth() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return usualWidth;
    return size.ws_col;
}

}  // namespace skein
