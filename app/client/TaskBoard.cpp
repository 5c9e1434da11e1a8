#include "app/client/TaskBoard.h"

namespace skein {

namespace json = boost::json;

namespace {

std::string infoHashOf(const json::object& from) { return std::string(from.at("infoHash").as_string()); }

}  // namespace

bool TaskBoard::take(const json::object& message) {
    const json::string& type = message.at("type").as_string();
    if (type == "list") {
        tasks_ = message.at("tasks").as_array();
        index();
    } else if (type == "added") {
        tasks_.push_back(message.at("task"));
        rows_[infoHashOf(message.at("task").as_object())] = tasks_.size() - 1;
    } else if (type == "changed") {
        const json::object& changes = message.at("task").as_object();
        const auto row = rowOf(infoHashOf(changes));
        if (!row) return false;
        json::object& task = tasks_[*row].as_object();
        for (const auto& change : changes) task[change.key()] = change.value();
    } else if (type == "removed") {
        const auto row = rowOf(infoHashOf(message));
        if (!row) return false;
        tasks_.erase(tasks_.begin() + static_cast<std::ptrdiff_t>(*row));
        index();
    } else {
        return false;
    }
    return true;
}

std::optional<std::size_t> TaskBoard::rowOf(const std::string& infoHash) const {
    const auto found = rows_.find(infoHash);
    return found == rows_.end() ? std::nullopt : std::optional(found->second);
}

void TaskBoard::index() {
    rows_.clear();
    for (std::size_t row = 0; row < tasks_.size(); ++row) rows_[infoHashOf(tasks_[row].as_object())] = row;
}

}  // namespace skein
