#include "downloads/DesktopNotifier.h"

#include "public/common/ErrorText.h"
#include "public/common/RunOn.h"

#include <boost/asio/post.hpp>

#include <algorithm>
#include <optional>
#include <system_error>
#include <utility>

namespace skein {

namespace {

/// From the start of the program to the first look whether it has ended; then each wait is twice as long.
constexpr std::chrono::milliseconds firstLook{20};

#ifdef __APPLE__
std::string shown(std::string name) { return name; }
#else
/// What is shown may hold markup, and a name is not ours: it must not bring any.
std::string shown(const std::string& name) {
    std::string text;
    for (const char character : name) {
        switch (character) {
            case '&': text += "&amp;"; break;
            case '<': text += "&lt;"; break;
            case '>': text += "&gt;"; break;
            default: text += character;
        }
    }
    return text;
}
#endif

/// Has a program that is still there ended where its end may be waited for.
class Reaper {
public:
    Reaper(ChildProcess program, asio::any_io_executor disk) : program_(std::move(program)), disk_(std::move(disk)) {}
    Reaper(const Reaper&) = delete;
    Reaper& operator=(const Reaper&) = delete;
    ~Reaper() {
        if (!program_.hasEnded()) asio::post(disk_, [program = std::move(program_)] {});
    }

    bool hasEnded() { return program_.hasEnded(); }

private:
    ChildProcess program_;
    asio::any_io_executor disk_;
};

}  // namespace

std::vector<std::string> DesktopNotifier::systemCommand() {
#ifdef __APPLE__
    return {
        "osascript", "-e",     "on run argv", "-e", "display notification (item 2 of argv) with title (item 1 of argv)",
        "-e",        "end run"};
#else
    return {"notify-send", "--app-name=skein", "--"};
#endif
}

DesktopNotifier::DesktopNotifier(const asio::any_io_executor& pool, asio::any_io_executor disk, Clock& clock,
                                 FileLogger& log, std::vector<std::string> command)
    : disk_(std::move(disk)), clock_(clock), log_(log), command_(std::move(command)), tasks_(pool) {}

void DesktopNotifier::sendCompletionNotification(std::string name) {
    asio::post(tasks_.strand(), [this, name = std::move(name)]() mutable { accept(std::move(name)); });
}

void DesktopNotifier::accept(std::string name) {
    if (tasks_.isStopping() || isMissing_ || waiting_.size() >= mostWaiting) return;
    // A program's argument ends at the first zero.
    waiting_.push_back(name.substr(0, name.find('\0')));
    if (!std::exchange(isShowing_, true)) tasks_.spawn(showAll());
}

asio::awaitable<void> DesktopNotifier::showAll() {
    while (!waiting_.empty() && !isMissing_) {
        std::string name = std::move(waiting_.front());
        waiting_.pop_front();
        co_await show(std::move(name));
    }
    isShowing_ = false;
}

asio::awaitable<void> DesktopNotifier::show(std::string name) {
    std::vector<std::string> arguments = command_;
    arguments.emplace_back(title);
    arguments.push_back(shown(name));
    try {
        auto start = [arguments = std::move(arguments)] { return ChildProcess(arguments); };
        auto starting = runOn(disk_, std::move(start));
        ChildProcess started = co_await std::move(starting);
        Reaper program(std::move(started), disk_);
        const Clock::TimePoint giveUpAt = clock_.now() + patience;
        for (Clock::Duration wait = firstLook; !program.hasEnded() && clock_.now() < giveUpAt; wait *= 2)
            co_await clock_.sleep(std::min<Clock::Duration>(wait, std::chrono::seconds(1)));
    } catch (const std::system_error& error) {
        isMissing_ = error.code() == std::errc::no_such_file_or_directory;
        log_.debug("[Manager] no notification: ", textOf(error));
    }
}

asio::awaitable<void> DesktopNotifier::stop() { return tasks_.stop(); }

}  // namespace skein
