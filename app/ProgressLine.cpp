#include "app/ProgressLine.h"

#include <iostream>
#include <unistd.h>

namespace skein {

ProgressLine::ProgressLine(Clock& clock) : ProgressLine(clock, std::cerr, ::isatty(STDERR_FILENO) == 1) {}

ProgressLine::ProgressLine(Clock& clock, std::ostream& out, bool isTerminal)
    : clock_(clock), out_(out), isTerminal_(isTerminal), nextPlain_(clock.now()) {}

ProgressLine::~ProgressLine() {
    if (isDrawn_) out_ << "\r\x1B[K" << std::flush;
}

void ProgressLine::show(std::string_view text) {
    if (isTerminal_) {
        out_ << "\r\x1B[K" << text << std::flush;
        isDrawn_ = true;
    } else if (clock_.now() >= nextPlain_) {
        out_ << text << std::endl;
        nextPlain_ = clock_.now() + plainInterval;
    }
}

}  // namespace skein
