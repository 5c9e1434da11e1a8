#pragma once

#include "Core/engine/TorrentSession.h"
#include "public/common/FileLogger.h"

#include <cstdint>
#include <filesystem>

namespace skein {

/// The settings that act in a running daemon, as they are read at one moment.
struct LiveSettings {
    TorrentSession::Options sessions;  ///< as far as the settings say how a session works
    std::filesystem::path downloadFolder;
    std::int64_t memoryLimitMB = 0;
    std::int64_t downloadLimit = 0;  ///< bytes a second of everything; 0: no limit
    std::int64_t uploadLimit = 0;
    LogLevel logLevel = LogLevel::info;
};

}  // namespace skein
