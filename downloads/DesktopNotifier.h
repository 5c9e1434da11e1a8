#pragma once

#include "downloads/CompletionNotifier.h"
#include "public/common/ChildProcess.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <vector>

namespace skein {

/// Shows notifications on the desktop by the system's own program; where there is none, it shows nothing.
///
/// Owner: the program, which awaits `stop()`. Thread: any; the state lives on the strand of `tasks_`.
class DesktopNotifier final : public CompletionNotifier {
public:
    /// Names that wait; a list that is complete at once is not shown by the hundred.
    static constexpr std::size_t mostWaiting = 16;
    /// A program that takes longer is ended.
    static constexpr std::chrono::seconds patience{30};

    /// The command to which title and text are added: `notify-send`, on macOS `osascript`.
    static std::vector<std::string> systemCommand();

    DesktopNotifier(const asio::any_io_executor& pool, asio::any_io_executor disk, Clock& clock, FileLogger& log,
                    std::vector<std::string> command = systemCommand());

    void sendCompletionNotification(std::string name) override;
    /// Ends the program that runs, and returns when nothing of the notifier does.
    asio::awaitable<void> stop();

private:
    void accept(std::string name);
    asio::awaitable<void> showAll();
    asio::awaitable<void> show(std::string name);

    const asio::any_io_executor disk_;
    Clock& clock_;
    FileLogger& log_;
    const std::vector<std::string> command_;
    std::deque<std::string> waiting_;
    bool isShowing_ = false;  // showAll runs
    bool isMissing_ = false;  // the program is not installed
    TaskGroup tasks_;
};

}  // namespace skein
