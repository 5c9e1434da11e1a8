#pragma once

#include <filesystem>

namespace skein {

/// Creates `folder`, and the folders above it that are missing, for their owner alone, whatever the process's mask
/// says. A folder that is there stays as it is. Throws std::system_error with the system's reason. Blocks: for the disk
/// pool, or before anything else runs.
void createPrivateFolder(const std::filesystem::path& folder);

}  // namespace skein
