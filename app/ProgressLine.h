#pragma once

#include "public/common/Clock.h"

#include <iosfwd>
#include <string_view>

namespace skein {

/// How far something is, said on stderr: one line that is drawn over and over on a terminal, elsewhere (a log) a plain
/// line at most every 5 s.
///
/// Owner and thread: the command that works. `clock` and `out` outlive it.
class ProgressLine {
public:
    static constexpr std::chrono::seconds plainInterval{5};

    /// On stderr, as a terminal if it is one.
    explicit ProgressLine(Clock& clock);
    ProgressLine(Clock& clock, std::ostream& out, bool isTerminal);
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    /// Takes the line off the terminal.
    ~ProgressLine();

    void show(std::string_view text);

private:
    Clock& clock_;
    std::ostream& out_;
    const bool isTerminal_;
    bool isDrawn_ = false;
    Clock::TimePoint nextPlain_;
};

}  // namespace skein
