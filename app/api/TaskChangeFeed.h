#pragma once

#include "app/api/TaskJournal.h"

#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace skein {

/// What one reader of the event stream is still to be told: at first the whole list, then what became of each task
/// since it was last told of it, and the events. The slower the reader, the more is joined; what waits for it is at
/// most an entry a task and `mostEvents`. Plain logic; the thread of the journal, which outlives it.
class TaskChangeFeed {
public:
    /// Events that wait; beyond that the oldest is dropped.
    static constexpr std::size_t mostEvents = 256;
    /// Tasks that wait; a reader for whom more has happened gets the list again.
    static constexpr std::size_t mostTasks = 20'000;

    using Event = std::shared_ptr<const std::string>;

    explicit TaskChangeFeed(const TaskJournal& journal) : journal_(journal) {}

    /// The journal has something new of this task: it came, changed, or went.
    void touch(const std::string& infoHash);
    void add(Event event);
    /// The next message; nothing when all is told.
    std::optional<std::string> next();

private:
    std::string list();
    std::optional<std::string> nextOf(const std::string& infoHash);

    const TaskJournal& journal_;
    bool hasList_ = false;
    std::map<std::string, TaskJournal::Version> seen_;  // the tasks that the reader knows, and as of when
    std::set<std::string> waiting_;
    std::deque<std::string> order_;  // of `waiting_`
    std::deque<Event> events_;
};

}  // namespace skein
