#pragma once

#include "downloads/TorrentTask.h"

#include <boost/json/object.hpp>

#include <string>

namespace skein {

/// One task as `list --json` and the local API show it: every key there is, null where there is nothing.
/// The keys have always the same order. Thread: the main executor.
boost::json::object taskAsObject(const TorrentTask& task);
std::string taskAsJSON(const TorrentTask& task);

}  // namespace skein
