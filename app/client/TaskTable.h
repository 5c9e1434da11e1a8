#pragma once

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <cstddef>
#include <string>

namespace skein {

/// The list of tasks as lines that fill `width` columns: the name gives way, and on a narrow terminal whole columns.
/// Plain logic; immutable.
class TaskTable {
public:
    explicit TaskTable(std::size_t width);

    // Without a line end.
    std::string header() const;
    std::string row(const boost::json::object& task) const;

private:
    template <class Cell>
    std::string line(Cell cell) const;

    unsigned shown_ = 0;  // a bit a column
    std::size_t nameWidth_ = 0;
};

/// All of it, for reading.
std::string taskTable(const boost::json::array& tasks, std::size_t width);

/// "3 tasks, 1.2 MiB/s down, 30.0 KiB/s up"
std::string taskTotals(const boost::json::array& tasks);

/// Columns of the terminal that stdout is; 100 when it is none.
std::size_t terminalWidth();

}  // namespace skein
