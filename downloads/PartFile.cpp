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

PartFile::PartFile(fs::path folder, std::string name, int number, std::int64_t size)
    : folder_(std::move(folder)), name_(std::move(name)), number_(number), size_(size) {}

PartFile::~PartFile() { ::close(number_); }

std::unique_ptr<PartFile> PartFile::create(const fs::path& folder, const std::string& name) {
    for (int i = 0; i <= mostNumbers; ++i) {
        const std::string candidate = HTTPFileName::numbered(name, i);
        const fs::path path = folder / (candidate + std::string(suffix));
        if (isTaken(folder / candidate)) continue;
        const int number = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
        if (number < 0 && errno == EEXIST) continue;
        if (number < 0) fail(errno, path);
        auto part = std::unique_ptr<PartFile>(new PartFile(folder, candidate, number, 0));
        if (lock(number)) return part;
    }
    fail(EEXIST, folder / name);
}

std::unique_ptr<PartFile> PartFile::reopen(const fs::path& folder, const std::string& name, const FileIdentity& known) {
    const fs::path path = folder / (name + std::string(suffix));
    const int number = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (number < 0 && errno == ENOENT) return nullptr;
    if (number < 0) fail(errno, path);
    auto part = std::unique_ptr<PartFile>(new PartFile(folder, name, number, 0));
    if (known.isFile() && part->identity() != known) return nullptr;
    if (!lock(number)) fail(EBUSY, path);
    struct stat status {};
    if (::fstat(number, &status) != 0) fail(errno, path);
    if (!S_ISREG(status.st_mode)) fail(EINVAL, path);
    part->size_ = status.st_size;
    return part;
}

void PartFile::remove(const fs::path& folder, const std::string& name, const FileIdentity& known) {
    const auto part = reopen(folder, name, known);
    if (part && ::unlink(part->path().c_str()) != 0) fail(errno, part->path());
}

void PartFile::append(ByteView bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::pwrite(number_, bytes.data(), bytes.size(), size_);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) fail(errno, path());
        size_ += count;
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

void PartFile::truncate(std::int64_t size) {
    if (::ftruncate(number_, size) != 0) fail(errno, path());
    size_ = size;
}

void PartFile::sync() {
#ifdef __APPLE__
    const int result = ::fsync(number_);
#else
    const int result = ::fdatasync(number_);
#endif
    if (result != 0) fail(errno, path());
}

void PartFile::discard() noexcept {
    if (isInPlace()) ::unlink(path().c_str());
}

void PartFile::finish(const std::function<void(const std::string&)>& foretell) {
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
