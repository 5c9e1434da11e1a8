#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace skein {

/// A program that we started, without a shell; it reads and writes nothing of ours.
///
/// It is ended and reaped when this goes. Thread: one at a time.
class ChildProcess {
public:
    /// Starts `arguments[0]`, which is searched in PATH, with all of `arguments`. Throws std::system_error
    /// (no_such_file_or_directory when it is not installed). Blocks: for the disk pool.
    explicit ChildProcess(const std::vector<std::string>& arguments);
    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&& other) noexcept;
    /// Kills the program, and what it started, if it still runs; waits for its end: a moment.
    ~ChildProcess();

    /// Never waits. From true on, the program is reaped.
    bool hasEnded();

private:
    pid_t id_ = 0;  // 0 once reaped
};

}  // namespace skein
