#include "downloads/PartFile.h"

#include "downloads/HTTPFileName.h"
#include "public/common/RenameFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace skein {

namespace {

namespace fs = std::filesystem;

/// More files of one name are not a download folder any more.
constexpr int mostNumbers = 9999;

[[noreturn]] void fail(int error, const fs::path& file) {
    throw std::system_error(error, std::generic_category(), file.string());
}

bool isTaken(const fs::path& file) {
    std::error_code ignored;
    return fs::exists(fs::symlink_status(file, ignored));
}

/// Fails when another one holds it; the system lets go of it when the process ends, however it ends.
bool lock(int number) { return ::flock(number, LOCK_EX | LOCK_NB) == 0; }

/// A new name is safe only once its folder is written. Some file systems cannot do that, and need not.
void syncFolder(const fs::path& folder) {
    const int number = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (number < 0) return;  // not ours to read
    const bool isSynced = ::fsync(number) == 0 || errno == EINVAL || errno == ENOTSUP;
    const int error = errno;
    ::close(number);
    if (!isSynced) fail(error, folder);
}

}  // namespace

PartFile::PartFile(fs::path folder, std::string name, int number, FileCalls& calls)
    : folder_(std::move(folder)), name_(std::move(name)), number_(number), calls_(calls), left_(look()) {
    size_ = left_.size;
}

PartFile::~PartFile() { ::close(number_); }

std::unique_ptr<PartFile> PartFile::create(const fs::path& folder, const std::string& name, const Foretell& foretell,
                                           FileCalls& calls) {
    for (int i = 0; i <= mostNumbers; ++i) {
        const std::string candidate = HTTPFileName::numbered(name, i);
        const fs::path path = folder / (candidate + std::string(suffix));
        if (isTaken(folder / candidate) || isTaken(path)) continue;
        foretell(candidate);
        const int number = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (number < 0 && errno == EEXIST) continue;
        if (number < 0) fail(errno, path);
        auto part = std::unique_ptr<PartFile>(new PartFile(folder, candidate, number, calls));
        if (lock(number)) return part;
    }
    fail(EEXIST, folder / name);
}

std::unique_ptr<PartFile> PartFile::reopen(const fs::path& folder, const std::string& name, const FileIdentity& known,
                                           FileCalls& calls) {
    const fs::path path = folder / (name + std::string(suffix));
    const int number = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (number < 0 && errno == ENOENT) return nullptr;
    if (number < 0) fail(errno, path);
    auto part = std::unique_ptr<PartFile>(new PartFile(folder, name, number, calls));
    if (known.isFile() && part->identity() != known) return nullptr;
    struct stat status {};
    if (calls.status(number, status) != 0) fail(errno, path);
    if (!S_ISREG(status.st_mode)) fail(EINVAL, path);
    if (!known.isFile() && status.st_size > 0) return nullptr;
    if (!lock(number)) {
        if (!known.isFile()) return nullptr;
        fail(EBUSY, path);
    }
    return part;
}

void PartFile::remove(const fs::path& folder, const std::string& name, const FileIdentity& known) {
    const auto part = reopen(folder, name, known);
    if (part && ::unlink(part->path().c_str()) != 0) fail(errno, part->path());
}

void PartFile::append(ByteView bytes) {
    compare();
    while (!bytes.empty()) {
        const iovec piece{const_cast<std::uint8_t*>(bytes.data()), bytes.size()};
        const ssize_t count = FileCalls::retried([&] { return calls_.write(number_, &piece, 1, size_); });
        const int error = errno;
        left_ = look();
        if (count < 0) fail(error, path());
        size_ += count;
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

void PartFile::truncate(std::int64_t size) {
    compare();
    // Also where it seems to have that size already, unless we know: then its time stays as it was put down.
    if (isAltered_ || size != size_) {
        if (calls_.resize(number_, size) != 0) fail(errno, path());
        left_ = look();
    }
    size_ = size;
    syncedBytes_ = std::min(syncedBytes_, size);
    if (size == 0) isAltered_ = false;
}

void PartFile::sync() {
    if (FileCalls::retried([&] { return calls_.sync(number_); }) == 0) {
        syncedBytes_ = size_;
        return;
    }
    const int error = errno;
    compare();
    const bool wasAltered = std::exchange(isAltered_, true);  // until what may be lost is off
    truncate(syncedBytes_);
    if (size_ > 0) isAltered_ = wasAltered;
    fail(error, path());
}

bool PartFile::isAltered() {
    compare();
    return isAltered_ || !isInPlace();
}

FileStamp PartFile::look() const {
    struct stat status {};
    if (calls_.status(number_, status) != 0) fail(errno, path());
    return FileStamp::of(status);
}

void PartFile::compare() { isAltered_ = isAltered_ || look() != left_; }

void PartFile::discard() noexcept {
    if (isInPlace()) ::unlink(path().c_str());
}

void PartFile::finish(const Foretell& foretell) {
    for (int i = 0; i <= mostNumbers; ++i) {
        const std::string candidate = HTTPFileName::numbered(name_, i);
        const fs::path target = folder_ / candidate;
        if (isTaken(target)) continue;
        if (!isInPlace()) fail(ENOENT, path());
        foretell(candidate);
        if (renameWithoutReplacing(AT_FDCWD, path().string(), target.string()) != 0) {
            if (errno == EEXIST) continue;
            fail(errno, target);
        }
        name_ = candidate;
        return syncFolder(folder_);
    }
    fail(EEXIST, folder_ / name_);
}

}  // namespace skein
