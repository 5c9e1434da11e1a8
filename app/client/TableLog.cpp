#include "app/client/TableLog.h"

#include "app/Command.h"
#include "app/client/TaskTable.h"
#include "public/common/RunOn.h"

#include <ostream>
#include <utility>

namespace skein {

TableLog::TableLog(const Strand& strand, asio::any_io_executor disk, Clock& clock, std::ostream& out, End end)
    : disk_(std::move(disk)), clock_(clock), out_(out), end_(std::move(end)), changed_(strand), tasks_(strand) {
    tasks_.spawn(print());
}

asio::awaitable<void> TableLog::take(boost::json::object message) {
    if (board_.take(message)) {
        hasChanged_ = true;
        changed_.notify();
    }
    co_return;
}

void TableLog::write(const std::string& table) {
    if (!(out_ << table << std::endl)) throw CommandFailure("watch", "writing the output failed");
}

asio::awaitable<void> TableLog::print() {
    std::exception_ptr failure;
    try {
        for (;;) {
            while (!hasChanged_) co_await changed_.wait();
            hasChanged_ = false;
            const auto& tasks = board_.tasks();
            auto work = [this, table = taskTable(tasks, terminalWidth()) + taskTotals(tasks) + "\n"] { write(table); };
            co_await runOn(disk_, std::move(work));
            co_await clock_.sleep(interval);
        }
    } catch (...) {
        failure = std::current_exception();
    }
    end_(failure);
}

}  // namespace skein
