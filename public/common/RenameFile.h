#pragma once

#include <filesystem>
#include <string>

namespace skein {

/// Renames `from` to `to`, both in the open folder `folder` (or AT_FDCWD), unless there is a `to` already: unlike
/// rename(2) it never replaces a file. 0, or -1 with errno; EEXIST: `to` is taken. A file call: disk pool only.
int renameWithoutReplacing(int folder, const std::string& from, const std::string& to);

/// Renames `name` in the open folder `folder` to NAME.before, or NAME.before.2 and so on where that is taken. 0, or -1
/// with errno. A file call: disk pool only.
int moveAside(int folder, const std::string& name);
/// The same. Throws std::system_error.
void moveAside(const std::filesystem::path& file);

}  // namespace skein
