#include "app/client/WatchView.h"

#include "app/TextWidth.h"
#include "app/client/TaskTable.h"
#include "public/common/Printable.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace {

namespace json = boost::json;
using Kind = WatchAction::Kind;

constexpr const char* keys = "q quit   j/k or arrows choose   p pause   r resume   d remove   D with files";
/// The header, what is known of the chosen task, the totals, the footer.
constexpr std::size_t otherLines = 4;

std::string text(const json::object& task, std::string_view key) {
    const json::value* const value = task.if_contains(key);
    return value != nullptr && value->is_string() ? printable(value->as_string()) : std::string();
}

std::string highlighted(const std::string& line) { return "\x1B[7m" + line + "\x1B[0m"; }

}  // namespace

void WatchView::take(const json::object& message) {
    board_.take(message);
    keepChoice();
    if (message.at("type") == "completed") notice_ = text(message, "name") + ": complete";
}

const json::object* WatchView::chosen() const {
    const auto row = board_.rowOf(chosen_);
    return row ? &board_.tasks()[*row].as_object() : nullptr;
}

void WatchView::choose(std::size_t row) {
    if (board_.tasks().empty()) return;
    row_ = std::min(row, board_.tasks().size() - 1);
    chosen_ = std::string(board_.tasks()[row_].as_object().at("infoHash").as_string());
}

/// The choice stays with its task; with the place when that is gone.
void WatchView::keepChoice() {
    if (question_ && !board_.rowOf(question_->infoHash)) question_.reset();
    if (const auto row = board_.rowOf(chosen_)) {
        row_ = *row;
    } else {
        choose(row_);
    }
}

std::optional<WatchAction> WatchView::act(Kind kind) {
    if (chosen() == nullptr) return std::nullopt;
    return WatchAction{kind, chosen_};
}

std::optional<WatchAction> WatchView::press(Key key) {
    notice_.clear();
    if (auto question = std::exchange(question_, std::nullopt)) return key == Key::yes ? question : std::nullopt;
    switch (key) {
        case Key::up: choose(row_ - std::min<std::size_t>(row_, 1)); break;
        case Key::down: choose(row_ + 1); break;
        case Key::pageUp: choose(row_ - std::min(row_, page_)); break;
        case Key::pageDown: choose(row_ + page_); break;
        case Key::first: choose(0); break;
        case Key::last: choose(board_.tasks().size()); break;
        case Key::pause: return act(Kind::pause);
        case Key::resume: return act(Kind::resume);
        case Key::remove: question_ = act(Kind::remove); break;
        case Key::removeWithFiles: question_ = act(Kind::removeWithFiles); break;
        case Key::quit: return WatchAction{Kind::quit, {}};
        case Key::yes:
        case Key::other: break;
    }
    return std::nullopt;
}

std::string WatchView::footer() const {
    if (!question_) return notice_.empty() ? keys : printable(notice_);
    const auto row = board_.rowOf(question_->infoHash);
    const std::string name = row ? text(board_.tasks()[*row].as_object(), "name") : std::string();
    return question_->kind == Kind::remove ? "Remove? y/n   " + name : "Remove and delete its files? y/n   " + name;
}

/// Why the chosen task is as it is.
std::string WatchView::detail() const {
    const json::object* const task = chosen();
    if (task == nullptr) return "no tasks yet: skein add SOURCE";
    for (const char* const key : {"errorMessage", "stallReason", "statusMessage"})
        if (std::string why = text(*task, key); !why.empty()) return why;
    return {};
}

void WatchView::scroll(std::size_t visible) {
    page_ = visible;
    const std::size_t count = board_.tasks().size();
    top_ = std::min(top_, count - std::min(count, visible));
    top_ = std::min(top_, row_);
    if (row_ >= top_ + visible) top_ = row_ + 1 - visible;
}

std::string WatchView::screen(std::size_t rows, std::size_t columns) {
    const json::array& tasks = board_.tasks();
    const TaskTable table(columns);
    const std::size_t visible = rows > otherLines ? rows - otherLines : 1;
    scroll(visible);
    std::vector<std::string> lines{"\x1B[1m" + table.header() + "\x1B[0m"};
    for (std::size_t row = top_; row < top_ + visible; ++row) {
        const std::string line = row < tasks.size() ? table.row(tasks[row].as_object()) : std::string();
        lines.push_back(row < tasks.size() && row == row_ ? highlighted(line) : line);
    }
    lines.push_back(fitted(detail(), columns));
    lines.push_back(fitted(taskTotals(tasks), columns));
    lines.push_back(highlighted(fitted(footer(), columns)));
    lines.resize(std::min(lines.size(), rows));

    // A line is cleared before it is written: after it, the cursor may stand on its last character.
    std::string screen = "\x1B[H";
    for (std::size_t i = 0; i < lines.size(); ++i) screen += (i == 0 ? "\x1B[2K" : "\r\n\x1B[2K") + lines[i];
    return screen;
}

}  // namespace skein
