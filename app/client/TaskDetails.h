#pragma once

#include <boost/json/object.hpp>

#include <string>

namespace skein {

/// One task with its trackers, peers and files, for reading. Plain logic.
std::string taskDetails(const boost::json::object& task);

}  // namespace skein
