#pragma once

#include "public/common/SHA1.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>

namespace skein {

/// Thrown where a target is taken; `what()` names the process that has it.
class TargetTaken : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Keeps a second process from writing the same into the same folder, whatever home it uses.
///
/// All locks of a folder are places in one file there, of which a process has one descriptor, however many it holds;
/// the last one removes the file. They are the operating system's, so that they go with their process however that
/// ends. Where no such file can be made (a folder that cannot be written to, a file system without locks) nothing is
/// locked. Thread: any; taking and releasing makes file calls.
class TargetLock {
public:
    /// The file's name; it is nobody's content.
    static constexpr std::string_view fileName = ".skein.lock";

    /// `source` is the info-hash of a torrent, or the digest of an address. The folder is made if there is none.
    /// Throws TargetTaken, and std::system_error.
    TargetLock(const std::filesystem::path& folder, const SHA1Digest& source);
    TargetLock(const TargetLock&) = delete;
    TargetLock& operator=(const TargetLock&) = delete;
    ~TargetLock();

    /// Whether this process or another holds it.
    static bool isHeld(const std::filesystem::path& folder, const SHA1Digest& source);

private:
    class File;
    class Registry;

    std::shared_ptr<File> file_;  // null: nothing is locked
    std::int64_t place_ = 0;
};

}  // namespace skein
