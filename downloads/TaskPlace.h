#pragma once

#include <filesystem>
#include <string>

namespace skein {

/// Where a task's files go.
struct TaskPlace {
    std::filesystem::path folder;  ///< empty: the download folder
    std::string topName;           ///< of its file or folder; empty: its own name
    bool movesAside = false;       ///< a foreign file in the way is renamed, once
};

}  // namespace skein
