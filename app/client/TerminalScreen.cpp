#include "app/client/TerminalScreen.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>

namespace skein {

namespace {

/// The other screen, without cursor and without lines that go on in the next one.
constexpr std::string_view enter = "\x1B[?1049h\x1B[?25l\x1B[?7l";
constexpr std::string_view leave = "\x1B[?7h\x1B[?25h\x1B[?1049l";

// For the whole program, as the terminal is: it has to go back even when nobody unwinds.
termios before{};
std::atomic<bool> isTaken = false;

/// Bytes written; less than all of them on an error.
std::size_t writeAll(std::string_view text) noexcept {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(STDOUT_FILENO, text.data() + written, text.size() - written);
        if (count > 0) {
            written += static_cast<std::size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    return written;
}

void writeOrThrow(std::string_view text) {
    if (writeAll(text) < text.size()) throw std::system_error(errno, std::generic_category(), "the terminal");
}

}  // namespace

bool TerminalScreen::isTerminal() noexcept { return ::isatty(STDOUT_FILENO) == 1; }

TerminalScreen::TerminalScreen() {
    if (::tcgetattr(STDOUT_FILENO, &before) != 0)
        throw std::system_error(errno, std::generic_category(), "the terminal");
    termios ours = before;
    ours.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    ours.c_iflag &= ~static_cast<tcflag_t>(IXON);
    ours.c_cc[VSUSP] = _POSIX_VDISABLE;
    ours.c_cc[VQUIT] = _POSIX_VDISABLE;
    ours.c_cc[VMIN] = 1;
    ours.c_cc[VTIME] = 0;
    isTaken = true;
    try {
        if (::tcsetattr(STDOUT_FILENO, TCSANOW, &ours) != 0)
            throw std::system_error(errno, std::generic_category(), "the terminal");
        writeOrThrow(enter);
    } catch (...) {
        giveBack();
        throw;
    }
}

TerminalScreen::~TerminalScreen() { giveBack(); }

void TerminalScreen::giveBack() noexcept {
    if (!isTaken.exchange(false)) return;
    writeAll(leave);
    // Keys that were pressed for us are not left to the shell.
    ::tcsetattr(STDOUT_FILENO, TCSAFLUSH, &before);
}

TerminalScreen::Size TerminalScreen::size() const noexcept {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_row == 0 || size.ws_col == 0) return {};
    return {size.ws_row, size.ws_col};
}

void TerminalScreen::show(std::string_view screen) const { writeOrThrow(screen); }

int TerminalScreen::openKeys() {
    // Opened anew: what is set on stdin's own description would hold for the shell, too.
    constexpr int flags = O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
    const char* const name = ::ttyname(STDOUT_FILENO);
    int file = name == nullptr ? -1 : ::open(name, flags);
    if (file < 0) file = ::open("/dev/tty", flags);
    if (file < 0) throw std::system_error(errno, std::generic_category(), "the terminal");
    return file;
}

}  // namespace skein
