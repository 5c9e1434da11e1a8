#pragma once

#include "public/common/UUID.h"

#include <cstdint>
#include <string>

namespace skein {

/// Published to MsgCenter when a task came into the list or left it.
struct TaskListChanged {
    enum class Kind : std::uint8_t { added, removed };
    Kind kind = Kind::added;
    UUID id;
    std::string infoHash;
};

/// Published when a download has completed, whether or not the desktop is told of it too.
struct DownloadCompleted {
    UUID id;
    std::string infoHash;
    std::string name;
};

}  // namespace skein
