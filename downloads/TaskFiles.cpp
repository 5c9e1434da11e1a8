#include "downloads/TaskFiles.h"

#include "Core/engine/FileCalls.h"
#include "Core/engine/StorageError.h"
#include "Core/engine/TorrentLayout.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace skein {

namespace {

namespace fs = std::filesystem;

std::optional<std::string> safePath(const TorrentFileInfo& file) {
    try {
        return TorrentLayout::normalised(file.path);
    } catch (const StorageException&) {
        return std::nullopt;
    }
}

/// "a/b/c" is in "a/b" and is called "c"; what has no "/" is in "", the download folder.
std::string_view parentOf(std::string_view path) {
    return path.substr(0, path.find('/') == path.npos ? 0 : path.rfind('/'));
}
const char* nameOf(const std::string& path) { return path.c_str() + (path.rfind('/') + 1); }

/// Deletes below one folder, going from folder to folder without following a link.
class Remover {
public:
    Remover(const fs::path& folder, bool isSecondTry) : folder_(folder), isSecondTry_(isSecondTry) {}

    /// `identity` is what the task put down of it; no file: killed before it could, and so before it wrote anything.
    void removeFile(const std::string& path, const FileIdentity& identity) {
        struct stat status {};
        const int parent = enter(parentOf(path));
        if (parent < 0 || ::fstatat(parent, nameOf(path), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            const int error = errno;
            note(path);
            // The first try may have deleted the file and not yet its folders.
            if (isSecondTry_ && error == ENOENT) emptied_.emplace(parentOf(path));
            return;
        }
        if (!S_ISREG(status.st_mode)) return note(path, "not a regular file");
        const bool isOurs =
            identity.isFile() ? FileIdentity::at(parent, nameOf(path)) == identity : status.st_size == 0;
        if (!isOurs) return note(path, "not a file of this download");
        if (::unlinkat(parent, nameOf(path), 0) != 0) return note(path);
        ++result.files;
        emptied_.emplace(parentOf(path));
    }

    void removeEmptiedFolders() {
        // The set goes backwards: a folder comes before the one that it is in.
        while (!emptied_.empty()) {
            const std::string path = std::move(emptied_.extract(emptied_.begin()).value());
            if (path.empty()) break;
            const int parent = enter(parentOf(path));
            const bool isRemoved = parent >= 0 && ::unlinkat(parent, nameOf(path), AT_REMOVEDIR) == 0;
            if (isRemoved) ++result.folders;
            if (isRemoved || (isSecondTry_ && errno == ENOENT)) {
                emptied_.emplace(parentOf(path));
            } else if (errno != ENOTEMPTY && errno != EEXIST) {
                note(path);
            }
        }
    }

    void note(const std::string& path, const std::string& reason) {
        if (result.failures++ == 0) result.firstFailure = path + ": " + reason;
    }

    TaskFiles::Removal result;

private:
    /// With errno, which the call before has set.
    void note(const std::string& path) {
        if (errno != ENOENT) note(path, std::generic_category().message(errno));
    }

    /// An open folder, or -1 with errno. Lists go folder by folder, so the last one is kept open.
    int enter(std::string_view path) {
        if (current_.isOpen() && path == currentPath_) return current_.number();
        constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
        current_ = FileDescriptor(::open(folder_.c_str(), flags));
        currentPath_ = path;
        for (std::size_t start = 0; current_.isOpen() && start < path.size();) {
            const std::size_t end = std::min(path.find('/', start), path.size());
            const std::string name(path.substr(start, end - start));
            current_ = FileDescriptor(::openat(current_.number(), name.c_str(), flags | O_NOFOLLOW));
            start = end + 1;
        }
        return current_.number();
    }

    const fs::path folder_;
    const bool isSecondTry_;
    FileDescriptor current_;
    std::string currentPath_;
    std::set<std::string, std::greater<>> emptied_;  // folders that something was deleted from
};

}  // namespace

TaskFiles::TaskFiles(fs::path folder, FileList files) : folder_(std::move(folder)), files_(std::move(files)) {}

std::optional<fs::path> TaskFiles::fileURL(const TorrentFileInfo& file) const {
    const auto path = safePath(file);
    return path ? std::optional(folder_ / *path) : std::nullopt;
}

std::optional<fs::path> TaskFiles::firstExistingFileURL() const {
    for (const TorrentFileInfo& file : files_) {
        std::error_code ignored;
        if (auto path = fileURL(file); path && fs::is_regular_file(*path, ignored)) return path;
    }
    return std::nullopt;
}

fs::path TaskFiles::bestRevealURL() const {
    if (files_.empty()) return folder_;
    if (files_.size() == 1) return firstExistingFileURL().value_or(folder_);
    std::error_code ignored;
    const std::string path = safePath(files_.front()).value_or(std::string());
    const fs::path top = folder_ / path.substr(0, path.find('/'));
    return fs::is_directory(top, ignored) ? top : folder_;
}

bool TaskFiles::isFileAvailable(const TorrentFileInfo& file, double progress) const {
    std::error_code ignored;
    const auto path = fileURL(file);
    return progress >= 1.0 && path && fs::is_regular_file(*path, ignored);
}

std::vector<TaskFiles::Place> TaskFiles::places(std::size_t first, const std::vector<double>& progress) const {
    std::vector<Place> places;
    places.reserve(progress.size());
    for (std::size_t i = 0; i < progress.size() && first + i < files_.size(); ++i)
        places.push_back({fileURL(files_[first + i]), isFileAvailable(files_[first + i], progress[i])});
    return places;
}

TaskFiles::Removal TaskFiles::remove(const std::vector<FileClaims::Claim>& claims, bool isSecondTry) const {
    Remover remover(folder_, isSecondTry);
    for (const auto& [index, identity] : claims) {
        if (index >= files_.size()) continue;
        const TorrentFileInfo& file = files_[index];
        if (const auto path = safePath(file)) {
            remover.removeFile(*path, identity);
        } else {
            remover.note(file.path.substr(0, TorrentLayout::longestComponent), "not below the download folder");
        }
    }
    remover.removeEmptiedFolders();
    return std::move(remover.result);
}

}  // namespace skein
