#include "app/api/TaskChangeFeed.h"

#include "public/common/PlainJSON.h"

#include <boost/json/array.hpp>

#include <utility>

namespace skein {

namespace {

namespace json = boost::json;

std::string message(std::string_view type, std::string_view key, json::value content) {
    return plainJSON(json::object{{"type", type}, {key, std::move(content)}});
}

}  // namespace

void TaskChangeFeed::touch(const std::string& infoHash) {
    if (!hasList_ || !waiting_.insert(infoHash).second) return;
    order_.push_back(infoHash);
    if (order_.size() > mostTasks) hasList_ = false;
}

void TaskChangeFeed::add(Event event) {
    events_.push_back(std::move(event));
    if (events_.size() > mostEvents) events_.pop_front();
}

std::optional<std::string> TaskChangeFeed::next() {
    if (!hasList_) return list();
    while (!order_.empty()) {
        if (auto told = nextOf(order_.front())) return told;
        waiting_.erase(order_.front());
        order_.pop_front();
    }
    if (events_.empty()) return std::nullopt;
    const Event event = std::move(events_.front());
    events_.pop_front();
    return *event;
}

std::string TaskChangeFeed::list() {
    hasList_ = true;
    waiting_.clear();
    order_.clear();
    seen_.clear();
    json::array tasks;
    for (const TaskJournal::Entry* const entry : journal_.all()) {
        seen_.emplace(entry->task.at("infoHash").as_string(), journal_.version());
        tasks.emplace_back(entry->task);
    }
    return message("list", "tasks", std::move(tasks));
}

/// Nothing when the reader knows all of this task.
std::optional<std::string> TaskChangeFeed::nextOf(const std::string& infoHash) {
    const TaskJournal::Entry* const entry = journal_.find(infoHash);
    const auto seen = seen_.find(infoHash);
    if (seen == seen_.end()) {
        if (entry == nullptr) return std::nullopt;
        seen_.emplace(infoHash, journal_.version());
        return message("added", "task", entry->task);
    }
    // Another one of the same name may have come since.
    if (entry == nullptr || entry->added > seen->second) {
        seen_.erase(seen);
        return message("removed", "infoHash", json::string(infoHash));
    }
    json::object changes = TaskJournal::changesSince(*entry, std::exchange(seen->second, journal_.version()));
    if (changes.size() == 1) return std::nullopt;
    return message("changed", "task", std::move(changes));
}

}  // namespace skein
