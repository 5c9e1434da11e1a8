#pragma once

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <cstddef>
#include <string>

namespace skein {

/// The list of tasks as a table of lines no wider than `width`: the name gives way.
std::string taskTable(const boost::json::array& tasks, std::size_t width);

/// One task with its files and trackers, for reading.
std::string taskDetails(const boost::json::object& task);

/// Columns of the terminal that stdout is; 100 when it is none.
std::size_t terminalWidth();

}  // namespace skein
