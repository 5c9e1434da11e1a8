#pragma once

#include "public/common/SHA1.h"

#include <filesystem>

namespace skein {

/// Keeps a second process from writing the same torrent into the same folder, whatever home it uses.
///
/// The lock is the operating system's, so that it goes with its process however that ends.
class TargetLock {
public:
    /// Throws CommandFailure, naming the process that holds the lock.
    TargetLock(const std::filesystem::path& folder, const SHA1Digest& infoHash);
    TargetLock(const TargetLock&) = delete;
    TargetLock& operator=(const TargetLock&) = delete;
    ~TargetLock();

private:
    int file_ = -1;
};

}  // namespace skein
