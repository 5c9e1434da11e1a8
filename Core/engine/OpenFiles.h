#pragma once

#include "Core/engine/FileCalls.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>

namespace skein {

/// The files that are kept open, at most `capacity` of them: the one used longest ago makes room.
///
/// The limit on open files is the process's, so all torrents share one (`shared`). A file in use is closed only when
/// its last user lets go, so at most one file a disk thread is open beyond the capacity. Thread: any, several at once;
/// the disk threads meet here, so this is one of the few places with a lock.
class OpenFiles {
public:
    /// Half of what the strictest usual limit (256) leaves beside the sockets.
    static constexpr std::size_t usualCapacity = 64;

    struct Key {
        std::uint64_t owner = 0;  ///< from newOwner()
        std::size_t file = 0;
        friend auto operator<=>(const Key&, const Key&) = default;
    };
    enum class Access : std::uint8_t { read, write };
    using File = std::shared_ptr<const FileDescriptor>;
    /// Opens the file for reading, or for both; throws StorageException.
    using Opener = std::function<FileDescriptor(Access access)>;

    explicit OpenFiles(std::size_t capacity = usualCapacity);
    OpenFiles(const OpenFiles&) = delete;
    OpenFiles& operator=(const OpenFiles&) = delete;

    /// The one of this process.
    static const std::shared_ptr<OpenFiles>& shared();

    std::uint64_t newOwner();
    /// The file `key`, opened by `open` unless it is already. What `open` throws comes through.
    File acquire(const Key& key, Access access, const Opener& open);
    void close(const Key& key);
    void closeAll(std::uint64_t owner);
    /// Closes half of what is open, for when the process has run out of descriptors. False when nothing was open any
    /// more: what other threads closed in their calls is free by then, so opening is worth one last attempt.
    bool shrink();
    std::size_t count() const;

private:
    struct Entry {
        Key key;
        Access access;
        File file;
    };
    using Entries = std::list<Entry>;

    const std::size_t capacity_;
    std::mutex shrinking_;  // locked before the other
    mutable std::mutex mutex_;
    std::uint64_t owners_ = 0;
    Entries recent_;  // the latest used first
    std::map<Key, Entries::iterator> byKey_;
};

}  // namespace skein
