#include "Core/engine/OpenFiles.h"

#include <algorithm>

namespace skein {

OpenFiles::OpenFiles(std::size_t capacity) : capacity_(std::max<std::size_t>(capacity, 1)) {}

const std::shared_ptr<OpenFiles>& OpenFiles::shared() {
    static const auto files = std::make_shared<OpenFiles>();
    return files;
}

std::uint64_t OpenFiles::newOwner() {
    const std::lock_guard lock(mutex_);
    return ++owners_;
}

OpenFiles::File OpenFiles::acquire(const Key& key, Access access, const Opener& open) {
    {
        const std::lock_guard lock(mutex_);
        const auto found = byKey_.find(key);
        if (found != byKey_.end() && (access == Access::read || found->second->access == Access::write)) {
            recent_.splice(recent_.begin(), recent_, found->second);
            return found->second->file;
        }
    }
    File file = std::make_shared<const FileDescriptor>(open(access));
    Entries dropped;  // closed after the lock is released: closing may wait for a slow disk
    const std::lock_guard lock(mutex_);
    if (const auto found = byKey_.find(key); found != byKey_.end()) {
        if (access == Access::read) return file;  // another thread was quicker; ours is closed after its use
        dropped.splice(dropped.end(), recent_, found->second);
        byKey_.erase(found);
    }
    recent_.push_front({key, access, file});
    byKey_.emplace(key, recent_.begin());
    while (recent_.size() > capacity_) {
        byKey_.erase(recent_.back().key);
        dropped.splice(dropped.end(), recent_, std::prev(recent_.end()));
    }
    return file;
}

void OpenFiles::close(const Key& key) {
    Entries dropped;
    const std::lock_guard lock(mutex_);
    const auto found = byKey_.find(key);
    if (found == byKey_.end()) return;
    dropped.splice(dropped.end(), recent_, found->second);
    byKey_.erase(found);
}

void OpenFiles::closeAll(std::uint64_t owner) {
    Entries dropped;
    const std::lock_guard lock(mutex_);
    auto entry = byKey_.lower_bound(Key{owner, 0});
    while (entry != byKey_.end() && entry->first.owner == owner) {
        dropped.splice(dropped.end(), recent_, entry->second);
        entry = byKey_.erase(entry);
    }
}

bool OpenFiles::shrink() {
    // One after the other: whoever finds nothing left to close finds that the others have closed theirs.
    const std::lock_guard turn(shrinking_);
    Entries dropped;
    const std::lock_guard lock(mutex_);
    if (recent_.empty()) return false;
    for (std::size_t keep = recent_.size() / 2; recent_.size() > keep;) {
        byKey_.erase(recent_.back().key);
        dropped.splice(dropped.end(), recent_, std::prev(recent_.end()));
    }
    return true;
}

std::size_t OpenFiles::count() const {
    const std::lock_guard lock(mutex_);
    return recent_.size();
}

}  // namespace skein
