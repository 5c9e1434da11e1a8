#include "Core/engine/TorrentStorage.h"

#include "Core/engine/FileOpener.h"
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
/// Whoever syncs can stop after so many files, each of which may wait for a slow disk.
constexpr int filesPerSync = 16;

}  // namespace

TorrentStorage::TorrentStorage(TorrentLayout layout, Environment environment)
    : layout_(std::move(layout)),
      folder_(std::move(environment.folder)),
      mode_(environment.mode),
      openFiles_(std::move(environment.openFiles)),
      owner_(openFiles_->newOwner()),
      calls_(environment.calls),
      ownership_(layout_, folder_, calls_, environment.torrent, environment.claim),
      hasSize_(layout_.files().size()),
      watch_(layout_.files().size()) {}

TorrentStorage::~TorrentStorage() { close(); }

void TorrentStorage::survey(std::size_t first, std::size_t count) {
    if (first == 0) {
        std::error_code failure;
        std::filesystem::create_directories(folder_, failure);
        if (failure) throw StorageException::failedCall(folder_.string(), failure.value());
    }
    FileOpener opener = newOpener();
    ownership_.survey(opener, first, count);
}

void TorrentStorage::take(const FoundPieces& found) {
    FileOpener opener = newOpener();
    ownership_.take(opener, found);
}

void TorrentStorage::makeMissing(std::size_t first, std::size_t count) {
    FileOpener opener = newOpener();
    ownership_.makeMissing(opener, first, count);
}

/// A file that is longer by now stays so: what was added is not ours to cut.
void TorrentStorage::giveSize(std::size_t index, const FileDescriptor& file, FileOpener& opener) {
    if (hasSize_[index]) return;
    const TorrentLayout::File& entry = layout_.files()[index];
    if (opener.sizeOf(file, entry.path) < entry.size &&
        FileCalls::retried([&] { return calls_.resize(file.number(), entry.size); }) != 0)
        throw StorageException::failedCall(entry.path, errno);
    hasSize_[index] = true;
}

FileStamp TorrentStorage::stampOf(std::size_t index) const {
    struct stat status {};
    const std::string path = (folder_ / layout_.files()[index].path).string();
    return ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? FileStamp::of(status) : FileStamp();
}

FileStamp TorrentStorage::stampOf(const FileDescriptor& file) const {
    struct stat status {};
    return calls_.status(file.number(), status) == 0 ? FileStamp::of(status) : FileStamp();
}

void TorrentStorage::beginCheck(std::size_t first, std::size_t count) {
    const std::size_t end = std::min(first + count, layout_.files().size());
    for (std::size_t index = first; index < end; ++index) {
        const std::lock_guard turn(writeTurn_);
        watch_.beginCheck(index, stampOf(index));
    }
}

void TorrentStorage::lookForChanges(std::size_t first, std::size_t count) {
    const std::size_t end = std::min(first + count, layout_.files().size());
    for (std::size_t index = first; index < end; ++index) {
        if (TorrentLayout::isPadding(layout_.files()[index])) continue;  // shared, and nobody's loss
        const std::lock_guard turn(writeTurn_);
        watch_.compare(index, stampOf(index));
    }
}

std::vector<std::size_t> TorrentStorage::takeDoubted() {
    const std::lock_guard turn(writeTurn_);
    std::vector<std::size_t> doubted(watch_.doubted().begin(), watch_.doubted().end());
    FileOpener opener = newOpener();
    for (const std::size_t index : doubted) {
        watch_.beginCheck(index, stampOf(index));
        try {
            calls_.forgetCached(file(index, OpenFiles::Access::read, opener)->number());
        } catch (const StorageException&) {
            // Whoever reads it will see.
        }
    }
    return doubted;
}

void TorrentStorage::doubt(const std::vector<std::size_t>& files) {
    const std::lock_guard turn(writeTurn_);
    for (const std::size_t index : files) watch_.doubt(index);
}

FileStamp TorrentStorage::vouchedFor(std::size_t index) const {
    const std::lock_guard turn(writeTurn_);
    return watch_.vouchedFor(index);
}

void TorrentStorage::addUnsynced(const std::vector<bool>& files) {
    const std::lock_guard turn(writeTurn_);
    for (std::size_t index = 0; index < files.size(); ++index)
        if (files[index]) unsynced_.insert(unsynced_.end(), index);
}

void TorrentStorage::write(std::int64_t offset, std::span<const iovec> from) {
    const std::lock_guard turn(writeTurn_);
    VectorCursor left(from);
    FileOpener opener = newOpener();
    std::array<iovec, buffersPerCall> window{};
    layout_.forEachSlice(offset, static_cast<std::int64_t>(VectorCursor::total(from)), [&](TorrentLayout::Slice slice) {
        const OpenFiles::File handle = file(slice.file, OpenFiles::Access::write, opener);
        if (!TorrentLayout::isPadding(layout_.files()[slice.file])) watch_.compare(slice.file, stampOf(*handle));
        giveSize(slice.file, *handle, opener);
        unsynced_.insert(slice.file);
        while (slice.length > 0) {
            const int count = left.describe(window, static_cast<std::size_t>(slice.length));
            const ssize_t written =
                FileCalls::retried([&] { return calls_.write(handle->number(), window.data(), count, slice.offset); });
            if (written <= 0)
                throw StorageException::failedCall(layout_.files()[slice.file].path, written < 0 ? errno : ENOSPC);
            left.advance(static_cast<std::size_t>(written));
            slice.offset += written;
            slice.length -= written;
        }
        watch_.noteWrite(slice.file, stampOf(*handle));
    });
}

void TorrentStorage::read(std::int64_t offset, std::span<const iovec> into) {
    VectorCursor left(into);
    FileOpener opener = newOpener();
    std::array<iovec, buffersPerCall> window{};
    layout_.forEachSlice(offset, static_cast<std::int64_t>(VectorCursor::total(into)), [&](TorrentLayout::Slice slice) {
        const OpenFiles::File handle = file(slice.file, OpenFiles::Access::read, opener);
        while (slice.length > 0) {
            const int count = left.describe(window, static_cast<std::size_t>(slice.length));
            const ssize_t got =
                FileCalls::retried([&] { return calls_.read(handle->number(), window.data(), count, slice.offset); });
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
    FileOpener opener = newOpener();
    layout_.forEachSlice(offset, length, [&](TorrentLayout::Slice slice) {
        if (slice.length <= readAheadStep) return;  // the system reads that much ahead by itself
        try {
            const OpenFiles::File handle = file(slice.file, OpenFiles::Access::read, opener);
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
    FileOpener opener = newOpener();
    OpenFiles::File handle;
    try {
        handle = file(slice.file, OpenFiles::Access::read, opener);
        if (notes.file != slice.file) notes.size = opener.sizeOf(*handle, layout_.files()[slice.file].path);
    } catch (const StorageException&) {
        notes = {slice.file, -1};
        return;
    }
    const auto ask = [&](auto call) {
        return FileCalls::retried([&] { return (calls_.*call)(handle->number(), slice.offset); });
    };
    const std::int64_t data = ask(&FileCalls::nextData);
    if (data < 0 && errno == ENXIO) {
        notes = {slice.file, notes.size, true, slice.offset, notes.size};
    } else if (data > slice.offset) {
        notes = {slice.file, notes.size, true, slice.offset, data};
    } else {
        const std::int64_t hole = ask(&FileCalls::nextHole);
        notes = {slice.file, notes.size, false, slice.offset, hole < 0 ? notes.size : hole};
    }
}

bool TorrentStorage::syncSome() {
    FileOpener opener = newOpener();
    for (int synced = 0; synced < filesPerSync; ++synced) {
        std::size_t index = 0;
        {
            const std::lock_guard turn(writeTurn_);
            if (unsynced_.empty()) return false;
            index = unsynced_.extract(unsynced_.begin()).value();
        }
        try {
            // Reading is enough for it, and all that a complete file may allow.
            const OpenFiles::File handle = file(index, OpenFiles::Access::read, opener);
            if (FileCalls::retried([&] { return calls_.sync(handle->number()); }) != 0)
                throw StorageException::failedCall(layout_.files()[index].path, errno);
        } catch (const StorageException&) {
            const std::lock_guard turn(writeTurn_);
            unsynced_.insert(index);
            watch_.doubt(index);
            throw;
        }
    }
    return true;
}

void TorrentStorage::close() { openFiles_->closeAll(owner_); }

FileOpener TorrentStorage::newOpener() { return {folder_, mode_, *openFiles_, calls_}; }

OpenFiles::File TorrentStorage::file(std::size_t index, OpenFiles::Access access, FileOpener& opener) {
    const OpenFiles::Key key{owner_, index};
    const auto open = [&](OpenFiles::Access wanted) {
        FileDescriptor opened = opener.open(layout_.files()[index].path, wanted);
        // Meanwhile somebody may have put a file of theirs in its place.
        if (wanted == OpenFiles::Access::write && !ownership_.isOurs(index, FileIdentity::of(opened.number())))
            throw StorageException::foreignFile(ownership_.pathOf(index));
        return opened;
    };
    OpenFiles::File file = openFiles_->acquire(key, access, open);
    if (access == OpenFiles::Access::read) return file;
    // Writing to a file that was deleted would succeed, and the data be gone.
    struct stat status {};
    if (calls_.status(file->number(), status) == 0 && status.st_nlink > 0) return file;
    openFiles_->close(key);
    return openFiles_->acquire(key, access, open);
}

}  // namespace skein
