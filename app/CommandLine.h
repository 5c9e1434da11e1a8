#pragma once

namespace skein {

/// Reads the command line, runs its command and returns the program's exit status. All failures end here, as one line
/// on stderr.
int runCommandLine(int argc, const char* const* argv);

}  // namespace skein
