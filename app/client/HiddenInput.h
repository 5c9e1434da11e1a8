#pragma once

namespace skein {

/// Asks for a credential at the terminal and keeps what is typed off the screen while it lives, also when a signal ends
/// the program. Nothing where stdin is no terminal.
///
/// Owner: a command; one at a time. Thread: the main thread.
class HiddenInput {
public:
    HiddenInput();
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;
    ~HiddenInput();

private:
    const bool isTerminal_;
};

}  // namespace skein
