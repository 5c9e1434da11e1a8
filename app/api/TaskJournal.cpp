#include "app/api/TaskJournal.h"

#include <algorithm>
#include <cassert>

namespace skein {

namespace json = boost::json;

bool TaskJournal::put(const std::string& infoHash, json::object task) {
    const Version next = version_ + 1;
    const auto [place, isNew] = entries_.try_emplace(infoHash);
    Entry& entry = place->second;
    if (isNew) {
        entry = {std::move(task), {}, next};
        entry.changed.assign(entry.task.size(), next);
        version_ = next;
        return true;
    }
    assert(entry.task.size() == task.size());
    bool hasChanged = false;
    auto before = entry.task.begin();
    auto changed = entry.changed.begin();
    for (auto& now : task) {
        assert(before->key() == now.key());
        if (before->value() != now.value()) {
            before->value() = std::move(now.value());
            *changed = next;
            hasChanged = true;
        }
        ++before;
        ++changed;
    }
    if (hasChanged) version_ = next;
    return hasChanged;
}

const TaskJournal::Entry* TaskJournal::find(const std::string& infoHash) const {
    const auto found = entries_.find(infoHash);
    return found == entries_.end() ? nullptr : &found->second;
}

std::vector<const TaskJournal::Entry*> TaskJournal::all() const {
    std::vector<const Entry*> entries;
    entries.reserve(entries_.size());
    for (const auto& [infoHash, entry] : entries_) entries.push_back(&entry);
    std::sort(entries.begin(), entries.end(),
              [](const Entry* one, const Entry* other) { return one->added < other->added; });
    return entries;
}

json::object TaskJournal::changesSince(const Entry& entry, Version seen) {
    json::object changes;
    auto changed = entry.changed.begin();
    for (const auto& field : entry.task)
        if (*changed++ > seen || field.key() == "infoHash") changes.emplace(field.key(), field.value());
    return changes;
}

}  // namespace skein
