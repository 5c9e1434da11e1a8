#pragma once

#include <boost/json/object.hpp>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace skein {

/// The tasks as they were last looked at, and when each value last changed: what any reader has missed can be told from
/// the version that it saw. So a reader costs a number a task, not a copy of it. Plain logic; one thread at a time.
class TaskJournal {
public:
    using Version = std::uint64_t;  ///< counts the changes, from 1

    struct Entry {
        boost::json::object task;      ///< with `infoHash`
        std::vector<Version> changed;  ///< for each key of `task`, in its order
        Version added = 0;
    };

    /// Takes in how the task is now. Whether anything of it is new.
    bool put(const std::string& infoHash, boost::json::object task);
    void remove(const std::string& infoHash) { entries_.erase(infoHash); }

    Version version() const noexcept { return version_; }
    /// Null when there is none.
    const Entry* find(const std::string& infoHash) const;
    /// In the order added.
    std::vector<const Entry*> all() const;
    /// `infoHash` and the keys that changed after `seen`.
    static boost::json::object changesSince(const Entry& entry, Version seen);

private:
    std::map<std::string, Entry> entries_;
    Version version_ = 0;
};

}  // namespace skein
