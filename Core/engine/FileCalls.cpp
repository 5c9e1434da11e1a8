#include "Core/engine/FileCalls.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace skein {

FileCalls& FileCalls::real() {
    static FileCalls calls;
    return calls;
}

int FileCalls::open(int folder, const char* name, int flags, mode_t mode) {
    return ::openat(folder, name, flags | O_CLOEXEC, mode);
}

int FileCalls::makeFolder(int folder, const char* name) { return ::mkdirat(folder, name, 0777); }

int FileCalls::status(int file, struct stat& into) { return ::fstat(file, &into); }

int FileCalls::resize(int file, std::int64_t size) { return ::ftruncate(file, size); }

ssize_t FileCalls::read(int file, const iovec* into, int count, std::int64_t offset) {
    return count == 1 ? ::pread(file, into->iov_base, into->iov_len, offset) : ::preadv(file, into, count, offset);
}

ssize_t FileCalls::write(int file, const iovec* from, int count, std::int64_t offset) {
    return count == 1 ? ::pwrite(file, from->iov_base, from->iov_len, offset) : ::pwritev(file, from, count, offset);
}

#ifdef __APPLE__
void FileCalls::willRead(int file, std::int64_t offset, std::int64_t length) {
    radvisory range{offset, static_cast<int>(length)};
    ::fcntl(file, F_RDADVISE, &range);
}
void FileCalls::forgetCached(int) {}  // there is no such call
#else
void FileCalls::willRead(int file, std::int64_t offset, std::int64_t length) {
    ::posix_fadvise(file, offset, length, POSIX_FADV_WILLNEED);
}
void FileCalls::forgetCached(int file) { ::posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED); }
#endif

#ifdef SEEK_HOLE
std::int64_t FileCalls::nextData(int file, std::int64_t offset) { return ::lseek(file, offset, SEEK_DATA); }
std::int64_t FileCalls::nextHole(int file, std::int64_t offset) { return ::lseek(file, offset, SEEK_HOLE); }
#else
std::int64_t FileCalls::nextData(int, std::int64_t) { return errno = ENOTSUP, -1; }
std::int64_t FileCalls::nextHole(int, std::int64_t) { return errno = ENOTSUP, -1; }
#endif

int FileCalls::sync(int file) {
#ifdef __APPLE__
    return ::fsync(file);
#else
    return ::fdatasync(file);
#endif
}

FileDescriptor::FileDescriptor(FileDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
}

FileDescriptor::~FileDescriptor() {
    // A close that fails has closed all the same; what it might report, a later check of the data finds.
    if (number_ >= 0) ::close(number_);
}

}  // namespace skein
