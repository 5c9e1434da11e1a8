#pragma once

#include <string>

namespace skein {

/// Renames `from` to `to`, both in the open folder `folder` (or AT_FDCWD), unless there is a `to` already: unlike
/// rename(2) it never replaces a file. 0, or -1 with errno; EEXIST: `to` is taken. A file call: disk pool only.
int renameWithoutReplacing(int folder, const std::string& from, const std::string& to);

}  // namespace skein
