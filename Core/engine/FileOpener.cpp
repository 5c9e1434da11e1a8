#include "Core/engine/FileOpener.h"

#include "Core/engine/StorageError.h"
#include "public/common/RenameFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>

namespace skein {

namespace {

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

FileOpener::FileOpener(const std::filesystem::path& root, StorageMode mode, OpenFiles& openFiles, FileCalls& calls)
    : root_(root), mode_(mode), openFiles_(openFiles), calls_(calls) {}

FileDescriptor FileOpener::open(const std::string& path, OpenFiles::Access access) {
    return open(path, access == OpenFiles::Access::write ? O_RDWR : O_RDONLY);
}

FileDescriptor FileOpener::createNew(const std::string& path) {
    try {
        return open(path, O_RDWR | O_CREAT | O_EXCL);
    } catch (const StorageException& error) {
        // Somebody was quicker.
        if (error.code == EEXIST) throw StorageException::foreignFile((root_ / path).string());
        throw;
    }
}

FileOpener::Found FileOpener::look(const std::string& path) {
    try {
        enterFolderOf(path, false);
    } catch (const StorageException& error) {
        if (error.code == ENOENT) return {};
        throw;
    }
    const std::string name = nameOf(path);
    struct stat status {};
    if (::fstatat(folder_.number(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) return {};
        throw StorageException::failedCall(path, errno);
    }
    if (S_ISLNK(status.st_mode)) throw StorageException(StorageError::symbolicLink, path);
    if (S_ISDIR(status.st_mode)) throw StorageException::failedCall(path, EISDIR);
    if (!S_ISREG(status.st_mode)) throw StorageException(StorageError::notAFile, path);
    return {status.st_size, FileIdentity::at(folder_.number(), name.c_str())};
}

void FileOpener::moveAside(const std::string& path) {
    enterFolderOf(path, false);
    if (skein::moveAside(folder_.number(), nameOf(path)) != 0) throw StorageException::failedCall(path, errno);
}

FileDescriptor FileOpener::open(const std::string& path, int flags) {
    enterFolderOf(path, (flags & O_CREAT) != 0);
    const std::string name = nameOf(path);
    if (mode_ == StorageMode::download) flags |= O_NOFOLLOW;
    // O_NONBLOCK: a pipe left in the file's place must not hold a disk thread for ever.
    FileDescriptor file(tryOpen(folder_.number(), name.c_str(), flags | O_NONBLOCK));
    if (!file.isOpen()) {
        if (errno == ELOOP) throw StorageException(StorageError::symbolicLink, path);
        throw StorageException::failedCall(path, errno);
    }
    sizeOf(file, path);
    return file;
}

void FileOpener::enterFolderOf(const std::string& path, bool mayCreate) {
    const std::size_t lastSlash = path.rfind('/');
    const std::string folderPath = lastSlash == std::string::npos ? "" : path.substr(0, lastSlash + 1);
    if (folder_.isOpen() && folderPath == folderPath_) return;
    FileDescriptor folder(tryOpen(AT_FDCWD, root_.c_str(), O_RDONLY | O_DIRECTORY));
    if (!folder.isOpen()) throw StorageException::failedCall(root_.string(), errno);
    for (std::size_t start = 0, slash = path.find('/'); slash != std::string::npos; slash = path.find('/', start)) {
        folder = openBelow(folder, path.substr(start, slash - start), mayCreate, path);
        start = slash + 1;
    }
    folder_ = std::move(folder);
    folderPath_ = folderPath;
}

FileDescriptor FileOpener::openBelow(const FileDescriptor& folder, const std::string& name, bool mayCreate,
                                     const std::string& path) {
    const int flags = O_RDONLY | O_DIRECTORY | (mode_ == StorageMode::download ? O_NOFOLLOW : 0);
    FileDescriptor below(tryOpen(folder.number(), name.c_str(), flags));
    if (!below.isOpen() && errno == ENOENT && mayCreate) {
        if (calls_.makeFolder(folder.number(), name.c_str()) != 0 && errno != EEXIST)
            throw StorageException::failedCall(path, errno);
        below = FileDescriptor(tryOpen(folder.number(), name.c_str(), flags));
    }
    if (below.isOpen()) return below;
    const int code = errno;
    struct stat status {};
    // Linux says ENOTDIR for a link, as for a file.
    if (::fstatat(folder.number(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode) &&
        mode_ == StorageMode::download)
        throw StorageException(StorageError::symbolicLink, path);
    throw StorageException::failedCall(path, code);
}

int FileOpener::tryOpen(int folder, const char* name, int flags) {
    const auto attempt = [&] { return FileCalls::retried([&] { return calls_.open(folder, name, flags, 0666); }); };
    int file = attempt();
    for (bool mayHelp = true; mayHelp && file < 0 && (errno == EMFILE || errno == ENFILE);) {
        mayHelp = openFiles_.shrink();
        file = attempt();
    }
    return file;
}

std::int64_t FileOpener::sizeOf(const FileDescriptor& file, const std::string& path) {
    struct stat status {};
    if (calls_.status(file.number(), status) != 0) throw StorageException::failedCall(path, errno);
    if (!S_ISREG(status.st_mode)) throw StorageException(StorageError::notAFile, path);
    return status.st_size;
}

}  // namespace skein
