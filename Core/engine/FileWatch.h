#pragma once

#include "Core/engine/FileStamp.h"

#include <cstddef>
#include <set>
#include <vector>

namespace skein {

/// What each file of a torrent looked like when this download last touched it, and which files are in doubt since.
///
/// A file is in doubt when somebody else changed it, and when it could not be synced: the system may have dropped what
/// was written, and says so only once. Nothing vouches for it until its pieces were hashed again.
/// Owner: TorrentStorage, which guards it. Plain logic, no file calls.
class FileWatch {
public:
    explicit FileWatch(std::size_t fileCount) : left_(fileCount) {}

    /// What file `index` looks like before its pieces are read to be hashed. It is in doubt no longer.
    void beginCheck(std::size_t index, const FileStamp& stamp);
    /// What it looks like between our writes. Another look than we left it with puts it in doubt.
    void compare(std::size_t index, const FileStamp& stamp);
    /// What it looks like after our own write.
    void noteWrite(std::size_t index, const FileStamp& stamp);
    void doubt(std::size_t index) { doubted_.insert(index); }

    const std::set<std::size_t>& doubted() const noexcept { return doubted_; }
    /// How we left the file; no file while it is in doubt.
    FileStamp vouchedFor(std::size_t index) const;

private:
    std::vector<FileStamp> left_;
    std::set<std::size_t> doubted_;
};

}  // namespace skein
