#pragma once

#include "public/common/FileIdentity.h"
#include "public/common/SHA1.h"

#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace skein {

class Database;
class FileLogger;

/// Which files on disk belong to which download: those that it began, and those that it adopted because they held
/// pieces of it. What is not in here is somebody else's, and is never written to, shortened, renamed or deleted.
///
/// A file belongs to one download at most. Kept in a database under the home, for every process that uses this home.
/// Owner: the program. Thread: any of the disk pool; every call may wait for the disk. All throw DatabaseException.
class FileClaims {
public:
    /// A file of a download by its place in the torrent's list.
    struct Claim {
        std::size_t file = 0;
        FileIdentity identity;  ///< no file: about to be made
    };
    struct Holder {
        SHA1Digest download{};  ///< an info-hash, or the digest of a URL
        std::filesystem::path folder;
        bool isListed = false;  ///< a task of the saved list, which owns its files also while it rests
    };

    /// `database` is opened at the first use. `log` outlives this.
    FileClaims(std::filesystem::path database, FileLogger& log);
    FileClaims(const FileClaims&) = delete;
    FileClaims& operator=(const FileClaims&) = delete;
    ~FileClaims();

    /// The claims of `download`; its other files are left out.
    std::vector<Claim> claimsOf(const SHA1Digest& download);
    /// Who claims that file.
    std::optional<Holder> holderOf(const FileIdentity& file);
    /// Puts down that `holder` is about to make or adopt these files. On the device when this returns.
    void begin(const Holder& holder, const std::vector<Claim>& claims);
    /// Puts down which files they became; claims of other downloads on the same files end.
    void settle(const SHA1Digest& download, const std::vector<Claim>& claims);
    void forget(const SHA1Digest& download);
    /// Only these are tasks of the saved list; others keep their claims until somebody else's pieces match there.
    void keepListed(const std::set<SHA1Digest>& downloads);

private:
    Database& database();

    const std::filesystem::path path_;
    FileLogger& log_;
    std::mutex opening_;
    std::unique_ptr<Database> database_;
};

}  // namespace skein
