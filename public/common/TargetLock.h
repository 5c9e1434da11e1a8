#pragma once

#include "public/common/SHA1.h"

#include <filesystem>
#include <stdexcept>

namespace skein {

/// Thrown where a target is taken; `what()` names the process that has it.
class TargetTaken : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Keeps a second process from writing the same into the same folder, whatever home it uses.
///
/// The lock is the operating system's, so that it goes with its process however that ends. Thread: any; taking it makes
/// file calls.
class TargetLock {
public:
    /// `source` is the info-hash of a torrent, or the digest of an address. Throws TargetTaken, and std::system_error.
    TargetLock(const std::filesystem::path& folder, const SHA1Digest& source);
    TargetLock(const TargetLock&) = delete;
    TargetLock& operator=(const TargetLock&) = delete;
    ~TargetLock();

private:
    int file_ = -1;
};

}  // namespace skein
