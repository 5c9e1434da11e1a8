#pragma once

#include "app/client/TaskBoard.h"
#include "app/client/WatchOutput.h"
#include "public/common/Clock.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <iosfwd>
#include <string>

namespace skein {

/// `watch` where no terminal is: the table whenever something changed, at most every 5 s.
class TableLog final : public WatchOutput {
public:
    static constexpr std::chrono::seconds interval{5};

    /// `out` is written to on `disk`.
    TableLog(const Strand& strand, asio::any_io_executor disk, Clock& clock, std::ostream& out, End end);

    asio::awaitable<void> take(boost::json::object message) override;
    asio::awaitable<void> stop() override { return tasks_.stop(); }

private:
    asio::awaitable<void> print();
    void write(const std::string& table);

    const asio::any_io_executor disk_;
    Clock& clock_;
    std::ostream& out_;
    const End end_;
    TaskBoard board_;
    bool hasChanged_ = false;
    Notifier changed_;
    TaskGroup tasks_;
};

}  // namespace skein
