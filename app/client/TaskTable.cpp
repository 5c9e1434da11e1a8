#include "app/client/TaskTable.h"

#include "app/Quantities.h"
#include "app/TextWidth.h"
#include "app/client/TaskFields.h"
#include "public/common/Printable.h"

#include <boost/json/value.hpp>

#include <sys/ioctl.h>
#include <unistd.h>

namespace skein {

namespace {

namespace json = boost::json;
using namespace task_fields;

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

std::string TaskTable::row(const json::object& task) const {
    return line([&](const Layout& layout) {
        switch (layout.column) {
            case Column::number: return std::to_string(number(task, "number"));
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
    for (const json::value& task : tasks) table += layout.row(task.as_object()) + "\n";
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

std::size_t terminalWidth() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return usualWidth;
    return size.ws_col;
}

}  // namespace skein
