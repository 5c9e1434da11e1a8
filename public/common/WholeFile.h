#pragma once

#include "public/common/Bytes.h"

#include <cstddef>
#include <filesystem>

namespace skein {

/// All of a file. Throws std::system_error with the system's reason: file_too_large above `maxBytes`, is_a_directory
/// for a folder. Blocks: for the disk pool, or before anything else runs.
Bytes readWholeFile(const std::filesystem::path& file, std::size_t maxBytes);

/// Has `file` hold `bytes`, or what it held before: whenever the program or the machine stops, it is never half
/// written. A new file beside it (".NAME.new") is written, synced and renamed; one that a killed writer left there
/// goes, and one that another writer holds is waited for. `mode` holds the permissions, less the process's mask; unless
/// it says otherwise, the file is for its owner alone. Throws std::system_error with the system's reason. Blocks, as
/// above.
void replaceWholeFile(const std::filesystem::path& file, ByteView bytes,
                      std::filesystem::perms mode = std::filesystem::perms{0600});

/// Deletes `file` if it is what a killed writer left beside the file that it was to become. Blocks, as above.
void removeIfLeftNew(const std::filesystem::path& file);

/// The `mode` of what a user asked for, which is as open as the user's mask lets it be.
inline constexpr std::filesystem::perms sharedFile{0666};

}  // namespace skein
