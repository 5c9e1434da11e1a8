#pragma once

#include "downloads/TorrentTask.h"

#include <string>

namespace skein {

/// One task as `list --json` and the local API show it: every key there is, null where there is nothing.
/// Thread: the main executor.
std::string taskAsJSON(const TorrentTask& task);

}  // namespace skein
