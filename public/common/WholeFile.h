#pragma once

#include "public/common/Bytes.h"

#include <cstddef>
#include <filesystem>

namespace skein {

/// All of a file. Throws std::system_error with the system's reason: file_too_large above `maxBytes`, is_a_directory
/// for a folder. Blocks: for the disk pool, or before anything else runs.
Bytes readWholeFile(const std::filesystem::path& file, std::size_t maxBytes);

/// Has `file` hold `bytes`, or what it held before: whenever the program or the machine stops, it is never half
/// written. A new file beside it is written, synced and renamed. `mode` holds the permissions, less the process's mask;
/// unless it says otherwise, the file is for its owner alone.
/// Throws std::system_error with the system's reason. Not for two writers of one file at a time. Blocks, as above.
void replaceWholeFile(const std::filesystem::path& file, ByteView bytes,
                      std::filesystem::perms mode = std::filesystem::perms{0600});

/// The `mode` of what a user asked for, which is as open as the user's mask lets it be.
inline constexpr std::filesystem::perms sharedFile{0666};

}  // namespace skein
