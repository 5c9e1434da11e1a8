#pragma once

#include <cstddef>
#include <string_view>

namespace skein {

/// The terminal as a screen of our own: keys come at once and unseen, and what stood there comes back afterwards.
///
/// Ctrl-C is still a signal; Ctrl-Z and Ctrl-\ are keys, as they would leave the terminal as it is.
/// Owner: a command; one at a time. Thread: any, one at a time.
class TerminalScreen {
public:
    struct Size {
        std::size_t rows = 24;
        std::size_t columns = 80;
    };

    static bool isTerminal() noexcept;

    /// Takes the terminal that stdout is. Throws std::system_error.
    TerminalScreen();
    TerminalScreen(const TerminalScreen&) = delete;
    TerminalScreen& operator=(const TerminalScreen&) = delete;
    ~TerminalScreen();

    /// Gives the terminal back, for a program that ends at once. Any thread.
    static void giveBack() noexcept;

    Size size() const noexcept;
    /// Blocks while the terminal takes no more. Throws std::system_error.
    void show(std::string_view screen) const;
    /// A descriptor from which keys are read, which does not block. The caller closes it.
    static int openKeys();
};

}  // namespace skein
