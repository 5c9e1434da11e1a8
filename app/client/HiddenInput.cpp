#include "app/client/HiddenInput.h"

#include <array>
#include <csignal>
#include <cstddef>
#include <iostream>
#include <termios.h>
#include <unistd.h>

namespace skein {

namespace {

constexpr std::array endings{SIGINT, SIGTERM, SIGQUIT, SIGHUP};

// For the whole program, as the terminal is: it has to go back even when nobody unwinds.
termios before{};
std::array<struct sigaction, endings.size()> handlers{};

/// Ends the program as the signal would have without us.
void giveBackAndEnd(int signal) {
    ::tcsetattr(STDIN_FILENO, TCSANOW, &before);
    ::raise(signal);  // its default action, once this returns
}

}  // namespace

HiddenInput::HiddenInput() : isTerminal_(::tcgetattr(STDIN_FILENO, &before) == 0) {
    if (!isTerminal_) return;
    struct sigaction ours {};
    ours.sa_handler = giveBackAndEnd;
    ours.sa_flags = static_cast<int>(SA_RESETHAND);
    for (std::size_t i = 0; i < endings.size(); ++i) {
        ::sigaction(endings[i], &ours, &handlers[i]);
        if (handlers[i].sa_handler == SIG_IGN) ::sigaction(endings[i], &handlers[i], nullptr);
    }
    termios hidden = before;
    hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &hidden);
    std::cerr << "Credential: " << std::flush;
}

HiddenInput::~HiddenInput() {
    if (!isTerminal_) return;
    ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
    for (std::size_t i = 0; i < endings.size(); ++i) ::sigaction(endings[i], &handlers[i], nullptr);
    std::cerr << '\n';
}

}  // namespace skein
