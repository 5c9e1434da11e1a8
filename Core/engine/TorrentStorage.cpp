#include "Core/engine/TorrentStorage.h"

#include "Core/engine/StorageError.h"
#include "Core/engine/VectorCursor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace skein {

namespace {

/// One call takes so many buffers at most; systems take 1024 (IOV_MAX), a piece seldom has more than 64.
constexpr std::size_t buffersPerCall = 64;
/// Linux takes about a megabyte at most of one request to read ahead.
constexpr std::int64_t readAheadStep = std::int64_t{512} << 10U;

template <class Call>
auto retried(Call call) {
    auto result = call();
    while (result < 0 && errno == EINTR) result = call();
    return result;
}

}  // namespace

TorrentStorage::TorrentStorage(TorrentLayout layout, std::filesystem::path folder, StorageMode mode,
                               std::shared_ptr<OpenFiles> openFiles, FileCalls& calls)
    : layout_(std::move(layout)),
      folder_(std::move(folder)),
      mode_(mode),
      openFiles_(std::move(openFiles)),
      owner_(openFiles_->newOwner()),
      calls_(calls) {}

TorrentStorage::~TorrentStorage() { close(); }

void TorrentStorage::prepare(std::size_t first, std::size_t count) {
    if (mode_ == StorageMode::readOnly) return;
    if (first == 0) {
        std::error_code failure;
        std::filesystem::create_directories(folder_, failure);
        if (failure) throw StorageException::failedCall(folder_.string(), failure.value());
        // Until all files have their size nothing is known of them, and then a file that was there is data.
        zerosFrom_.assign(layout_.files().size(), std::numeric_limits<std::int64_t>::max());
        isUntouched_ = true;
    }
    const std::size_t end = std::min(first + count, layout_.files().size());
    for (std::size_t index = first; index < end; ++index) prepareFile(index);
}

void TorrentStorage::prepareFile(std::size_t index) {
    const TorrentLayout::File& entry = layout_.files()[index];
    const FileDescriptor file = open(index, OpenFiles::Access::write, true);
    const std::int64_t size = sizeOnDisk(file, entry.path);
    zerosFrom_[index] = size;
    if (size == entry.size) return;
    if (retried([&] { return calls_.resize(file.number(), entry.size); }) != 0)
        throw StorageException::failedCall(entry.path, errno);
}

FileStamp TorrentStorage::stampOf(std::size_t index) const {
    struct stat status {};
    const std::string path = (folder_ / layout_.files()[index].path).string();
    if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return {};
#ifdef __APPLE__
    const timespec& modified = status.st_mtimespec;
#else
    const timespec& modified = status.st_mtim;
#endif
    return {status.st_size, std::int64_t{modified.tv_sec} * 1'000'000'000 + modified.tv_nsec, status.st_ino};
}

void TorrentStorage::write(std::int64_t offset, std::span<const iovec> from) {
    const std::lock_guard turn(writeTurn_);
    isUntouched_ = false;
    VectorCursor left(from);
    std::array<iovec, buffersPerCall> window{};
    layout_.forEachSlice(offset, static_cast<std::int64_t>(VectorCursor::total(from)), [&](TorrentLayout::Slice slice) {
        const OpenFiles::File handle = file(slice.file, OpenFiles::Access::write);
        unsynced_.insert(slice.file);
        while (slice.length > 0) {
            const int count = left.describe(window, static_cast<std::size_t>(slice.length));
            const ssize_t written =
                retried([&] { return calls_.write(handle->number(), window.data(), count, slice.offset); });
            if (written <= 0)
                throw StorageException::failedCall(layout_.files()[slice.file].path, written < 0 ? errno : ENOSPC);
            left.advance(static_cast<std::size_t>(written));
            slice.offset += written;
            slice.length -= written;
        }
    });
}

void TorrentStorage::read(std::int64_t offset, std::span<const iovec> into) {
    VectorCursor left(into);
    std::array<iovec, buffersPerCall> window{};
    layout_.forEachSlice(offset, static_cast<std::int64_t>(VectorCursor::total(into)), [&](TorrentLayout::Slice slice) {
        const OpenFiles::File handle = file(slice.file, OpenFiles::Access::read);
        while (slice.length > 0) {
            const int count = left.describe(window, static_cast<std::size_t>(slice.length));
            const ssize_t got =
                retried([&] { return calls_.read(handle->number(), window.data(), count, slice.offset); });
            const std::string& path = layout_.files()[slice.file].path;
            if (got < 0) throw StorageException::failedCall(path, errno);
            if (got == 0) throw StorageException(StorageError::fileTooShort, path);
            left.advance(static_cast<std::size_t>(got));
            slice.offset += got;
            slice.length -= got;
        }
    });
}

void TorrentStorage::willRead(std::int64_t offset, std::int64_t length) {
    layout_.forEachSlice(offset, length, [&](TorrentLayout::Slice slice) {
        if (slice.length <= readAheadStep) return;  // the system reads that much ahead by itself
        try {
            const OpenFiles::File handle = file(slice.file, OpenFiles::Access::read);
            for (; slice.length > 0; slice.offset += readAheadStep, slice.length -= readAheadStep)
                calls_.willRead(handle->number(), slice.offset, std::min(slice.length, readAheadStep));
        } catch (const StorageException&) {
            // Whoever reads it will see.
        }
    });
}

TorrentStorage::Presence TorrentStorage::presenceOf(std::int64_t offset, std::int64_t length, PresenceNotes& notes) {
    bool hasData = false;
    bool isShort = false;
    layout_.forEachSlice(offset, length, [&](const TorrentLayout::Slice& slice) {
        if (isShort) return;
        const std::int64_t end = slice.offset + slice.length;
        if (notes.file != slice.file || slice.offset < notes.start || slice.offset >= notes.end) lookAt(slice, notes);
        isShort = notes.size < end;
        hasData = hasData || !notes.isHole || notes.end < end;
    });
    if (isShort) return Presence::absent;
    return hasData ? Presence::data : Presence::zeros;
}

/// Notes what there is of the slice's file, and how far the data or hole extends that begins where the slice does.
void TorrentStorage::lookAt(const TorrentLayout::Slice& slice, PresenceNotes& notes) {
    if (notes.file == slice.file && notes.size < 0) return;
    OpenFiles::File handle;
    try {
        handle = file(slice.file, OpenFiles::Access::read);
        if (notes.file != slice.file) notes.size = sizeOnDisk(*handle, layout_.files()[slice.file].path);
    } catch (const StorageException&) {
        notes = {slice.file, -1};
        return;
    }
    const auto ask = [&](auto call) { return retried([&] { return (calls_.*call)(handle->number(), slice.offset); }); };
    const std::int64_t data = ask(&FileCalls::nextData);
    // Where the file system cannot tell, we still know what we just added.
    const bool isOurs = isUntouched_ && slice.offset >= zerosFrom_[slice.file];
    if (isOurs || (data < 0 && errno == ENXIO)) {
        notes = {slice.file, notes.size, true, slice.offset, notes.size};
    } else if (data > slice.offset) {
        notes = {slice.file, notes.size, true, slice.offset, data};
    } else {
        const std::int64_t hole = ask(&FileCalls::nextHole);
        notes = {slice.file, notes.size, false, slice.offset, hole < 0 ? notes.size : hole};
    }
}

bool TorrentStorage::syncNext() {
    std::size_t index = 0;
    {
        const std::lock_guard turn(writeTurn_);
        if (unsynced_.empty()) return false;
        index = unsynced_.extract(unsynced_.begin()).value();
    }
    const OpenFiles::File handle = file(index, OpenFiles::Access::write);
    if (retried([&] { return calls_.sync(handle->number()); }) != 0)
        throw StorageException::failedCall(layout_.files()[index].path, errno);
    return true;
}

void TorrentStorage::close() { openFiles_->closeAll(owner_); }

OpenFiles::File TorrentStorage::file(std::size_t index, OpenFiles::Access access) {
    const OpenFiles::Key key{owner_, index};
    const auto opener = [&](OpenFiles::Access wanted) { return open(index, wanted, false); };
    OpenFiles::File file = openFiles_->acquire(key, access, opener);
    if (access == OpenFiles::Access::read) return file;
    // Writing to a file that was deleted would succeed, and the data be gone.
    struct stat status {};
    if (calls_.status(file->number(), status) == 0 && status.st_nlink > 0) return file;
    openFiles_->close(key);
    file = openFiles_->acquire(key, access, opener);
    return file;
}

FileDescriptor TorrentStorage::open(std::size_t index, OpenFiles::Access access, bool create) {
    const std::string& path = layout_.files()[index].path;
    const FileDescriptor folder = openFolder(index, create);
    const std::size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    // O_NONBLOCK: a pipe left in the file's place must not hold a disk thread for ever.
    int flags = O_NONBLOCK | (access == OpenFiles::Access::write ? O_RDWR : O_RDONLY);
    if (create) flags |= O_CREAT;
    if (mode_ == StorageMode::download) flags |= O_NOFOLLOW;
    FileDescriptor file(tryOpen(folder.number(), name.c_str(), flags));
    if (!file.isOpen()) {
        if (errno == ELOOP) throw StorageException(StorageError::symbolicLink, path);
        throw StorageException::failedCall(path, errno);
    }
    sizeOnDisk(file, path);
    return file;
}

FileDescriptor TorrentStorage::openFolder(std::size_t index, bool create) {
    const std::string& path = layout_.files()[index].path;
    FileDescriptor folder(tryOpen(AT_FDCWD, folder_.c_str(), O_RDONLY | O_DIRECTORY));
    if (!folder.isOpen()) throw StorageException::failedCall(folder_.string(), errno);
    for (std::size_t start = 0, slash = path.find('/'); slash != std::string::npos; slash = path.find('/', start)) {
        folder = openFolderBelow(folder, path.substr(start, slash - start), create, path);
        start = slash + 1;
    }
    return folder;
}

FileDescriptor TorrentStorage::openFolderBelow(const FileDescriptor& folder, const std::string& name, bool create,
                                               const std::string& path) {
    const int flags = O_RDONLY | O_DIRECTORY | (mode_ == StorageMode::download ? O_NOFOLLOW : 0);
    FileDescriptor below(tryOpen(folder.number(), name.c_str(), flags));
    if (!below.isOpen() && errno == ENOENT && create) {
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

int TorrentStorage::tryOpen(int folder, const char* name, int flags) {
    const auto attempt = [&] { return retried([&] { return calls_.open(folder, name, flags, 0666); }); };
    int file = attempt();
    for (bool mayHelp = true; mayHelp && file < 0 && (errno == EMFILE || errno == ENFILE);) {
        mayHelp = openFiles_->shrink();
        file = attempt();
    }
    return file;
}

std::int64_t TorrentStorage::sizeOnDisk(const FileDescriptor& file, const std::string& path) {
    struct stat status {};
    if (calls_.status(file.number(), status) != 0) throw StorageException::failedCall(path, errno);
    if (!S_ISREG(status.st_mode)) throw StorageException(StorageError::notAFile, path);
    return status.st_size;
}

}  // namespace skein
