#pragma once

#include "tests/support/TemporaryFolder.h"

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

namespace skein {

/// One run of a program as a user starts it, its output kept.
class ProgramRun {
public:
    struct Result {
        int status = 0;  ///< the exit status; 128 and the signal's number when a signal ended it
        std::string out;
        std::string err;
    };

    /// Starts `arguments`, the program's path first; on the terminal of that name, if one is given. Throws
    /// std::system_error.
    explicit ProgramRun(const std::vector<std::string>& arguments, const std::string& terminal = {});
    ProgramRun(const ProgramRun&) = delete;
    ProgramRun& operator=(const ProgramRun&) = delete;
    /// Kills it, if it still runs.
    ~ProgramRun();

    void signal(int number) const;
    /// What it has written so far, other than to a terminal.
    std::string out() const;
    std::string err() const;
    /// Waits for its end. After `patience` it is killed, and the status shows that.
    Result finish(std::chrono::seconds patience = std::chrono::seconds(60));

private:
    TemporaryFolder folder_;
    pid_t process_ = -1;
};

}  // namespace skein
