#include "app/client/TaskTable.h"

#include "app/Printable.h"
#include "app/Quantities.h"

#include <boost/json/value.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sys/ioctl.h>
#include <unistd.h>

namespace skein {

namespace {

namespace json = boost::json;

constexpr std::size_t usualWidth = 100;
constexpr std::size_t leastName = 12;
/// What the columns beside the name take.
constexpr std::size_t otherColumns = 4 + 11 + 8 + 18 + 13 + 13 + 6;

std::string text(const json::object& task, std::string_view key) {
    const json::value& value = task.at(key);
    return value.is_string() ? std::string(value.as_string()) : std::string();
}
std::int64_t number(const json::object& task, std::string_view key) { return task.at(key).to_number<std::int64_t>(); }

/// UTF-8 characters, which a terminal shows in one column mostly.
std::size_t columnsOf(const std::string& shown) {
    return static_cast<std::size_t>(std::count_if(
        shown.begin(), shown.end(), [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U; }));
}

std::string fitted(std::string shown, std::size_t width) {
    if (columnsOf(shown) <= width) return shown + std::string(width - columnsOf(shown), ' ');
    while (columnsOf(shown) >= width) {
        while (!shown.empty() && (static_cast<unsigned char>(shown.back()) & 0xC0U) == 0x80U) shown.pop_back();
        shown.pop_back();
    }
    return shown + "…";
}

std::string right(const std::string& shown, std::size_t width) {
    return std::string(width - std::min(width, columnsOf(shown)), ' ') + shown;
}

std::string percent(const json::object& task) {
    char shown[16];
    std::snprintf(shown, sizeof shown, "%.1f%%", std::floor(task.at("progress").to_number<double>() * 1000) / 10);
    return shown;
}

std::string rate(const json::object& task, std::string_view key) {
    const std::int64_t bytes = number(task, key);
    return bytes == 0 ? "-" : formatByteCount(bytes) + "/s";
}

}  // namespace

std::string taskTable(const json::array& tasks, std::size_t width) {
    const std::size_t name = std::max(leastName, width > otherColumns ? width - otherColumns : 0);
    std::string table = right("#", 3) + " " + fitted("NAME", name) + right("SIZE", 11) + right("DONE", 8) + "  " +
                        fitted("STATUS", 16) + right("DOWN", 13) + right("UP", 13) + right("PEERS", 6) + "\n";
    std::size_t row = 0;
    for (const json::value& value : tasks) {
        const json::object& task = value.as_object();
        table += right(std::to_string(++row), 3) + " " + fitted(printable(text(task, "name")), name) +
                 right(formatByteCount(number(task, "totalSize")), 11) + right(percent(task), 8) + "  " +
                 fitted(text(task, "status"), 16) + right(rate(task, "downloadSpeed"), 13) +
                 right(rate(task, "uploadSpeed"), 13) + right(std::to_string(number(task, "peerCount")), 6) + "\n";
    }
    return table;
}

std::string taskDetails(const json::object& task) {
    std::string shown;
    const auto line = [&](const std::string& label, const std::string& content) {
        if (!content.empty()) shown += fitted(label + ":", 13) + printable(content) + "\n";
    };
    line("name", text(task, "name"));
    line("info hash", text(task, "infoHash"));
    line("status", text(task, "status"));
    line("message", text(task, "statusMessage"));
    line("error", text(task, "errorMessage"));
    line("why", text(task, "stallReason"));
    line("size", formatByteCount(number(task, "totalSize")) + ", " + percent(task) + " done");
    line("category", text(task, "category"));
    line("notes", text(task, "notes"));
    for (const json::value& tracker : task.at("trackers").as_array())
        line("tracker", text(tracker.as_object(), "url") + " " + text(tracker.as_object(), "status"));
    for (const json::value& file : task.at("files").as_array())
        shown += right(formatByteCount(number(file.as_object(), "size")), 12) + right(percent(file.as_object()), 8) +
                 "  " + printable(text(file.as_object(), "path")) + "\n";
    return shown;
}

std::size_t terminalWidth() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return usualWidth;
    return size.ws_col;
}

}  // namespace skein
