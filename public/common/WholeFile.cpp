#include "public/common/WholeFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace skein {

namespace {

namespace fs = std::filesystem;

/// Throws with errno, which the call before has set.
[[noreturn]] void fail(const fs::path& file) { throw std::system_error(errno, std::generic_category(), file.string()); }

/// An open file, closed when this goes.
class File {
public:
    File(const fs::path& file, int flags, mode_t mode = 0)
        : path_(file), number_(::open(file.c_str(), flags | O_CLOEXEC, mode)) {
        if (number_ < 0) fail(path_);
    }
    File(File&& other) noexcept : path_(std::move(other.path_)), number_(std::exchange(other.number_, -1)) {}
    File& operator=(File&&) = delete;
    ~File() {
        if (number_ >= 0) ::close(number_);
    }

    /// Up to `size` bytes; fewer only at the end of the file.
    std::size_t read(std::uint8_t* into, std::size_t size) {
        std::size_t done = 0;
        while (done < size) {
            const ssize_t count = ::read(number_, into + done, size - done);
            if (count == 0) break;
            if (count > 0) done += static_cast<std::size_t>(count);
            if (count < 0 && errno != EINTR) fail(path_);
        }
        return done;
    }

    void write(ByteView bytes) {
        while (!bytes.empty()) {
            const ssize_t count = ::write(number_, bytes.data(), bytes.size());
            if (count >= 0) bytes = bytes.subspan(static_cast<std::size_t>(count));
            if (count < 0 && errno != EINTR) fail(path_);
        }
    }

    /// Network file systems, too, tell of a failed write here.
    void sync() {
        if (::fsync(number_) != 0) fail(path_);
    }

    /// Waits for whoever holds it, unless told not to; false when somebody does. The lock goes with this. A file system
    /// that has no locks has nobody who holds one.
    bool lock(int waiting = 0) const {
        int result = 0;
        do {
            result = ::flock(number_, LOCK_EX | waiting);
        } while (result != 0 && errno == EINTR);
        return result == 0 || errno != EWOULDBLOCK;
    }

    /// Whether it is still the file of its name.
    bool isInPlace() const {
        struct stat named {};
        const struct stat own = status();
        return ::lstat(path_.c_str(), &named) == 0 && named.st_ino == own.st_ino && named.st_dev == own.st_dev;
    }

    struct stat status() const {
        struct stat status {};
        if (::fstat(number_, &status) != 0) fail(path_);
        return status;
    }

private:
    fs::path path_;
    int number_;
};

constexpr std::string_view newPrefix = ".";
constexpr std::string_view newSuffix = ".new";

/// Deletes what stands there unless somebody writes it: `waiting` says what to do then.
void clearAway(const fs::path& path, int waiting) {
    std::error_code error;
    const fs::file_type type = fs::symlink_status(path, error).type();
    if (type == fs::file_type::not_found) return;
    if (type != fs::file_type::regular) {
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) fail(path);
        return;
    }
    try {
        const File left(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
        if (left.lock(waiting) && left.isInPlace() && ::unlink(path.c_str()) != 0) fail(path);
    } catch (const std::system_error& failure) {
        if (failure.code() != std::errc::no_such_file_or_directory) throw;
    }
}

/// An empty file that nobody else writes or deletes while it is open.
File newFile(const fs::path& path, mode_t mode) {
    for (;;) {
        clearAway(path, 0);
        try {
            File fresh(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, mode);
            fresh.lock();
            if (fresh.isInPlace()) return fresh;
        } catch (const std::system_error& failure) {
            if (failure.code() != std::errc::file_exists) throw;
        }
    }
}

}  // namespace

Bytes readWholeFile(const fs::path& file, std::size_t maxBytes) {
    File source(file, O_RDONLY);
    const struct stat status = source.status();
    if (S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        fail(file);
    }
    if (S_ISREG(status.st_mode) && static_cast<std::uint64_t>(status.st_size) > maxBytes) {
        errno = EFBIG;
        fail(file);
    }
    // A pipe has no size, and a file may grow: read until there is no more, one byte beyond what is allowed at most.
    Bytes bytes(static_cast<std::size_t>(status.st_size));
    std::size_t size = source.read(bytes.data(), bytes.size());
    while (size == bytes.size() && size <= maxBytes) {
        bytes.resize(std::min(size + std::max<std::size_t>(size / 4, 4096), maxBytes + 1));
        size += source.read(bytes.data() + size, bytes.size() - size);
    }
    if (size > maxBytes) {
        errno = EFBIG;
        fail(file);
    }
    bytes.resize(size);
    return bytes;
}

void replaceWholeFile(const fs::path& file, ByteView bytes, fs::perms mode) {
    const fs::path folder = file.has_parent_path() ? file.parent_path() : fs::path(".");
    const fs::path fresh = folder / (std::string(newPrefix) + file.filename().string() + std::string(newSuffix));
    File target = newFile(fresh, static_cast<mode_t>(mode));
    try {
        target.write(bytes);
        target.sync();
        if (::rename(fresh.c_str(), file.c_str()) != 0) fail(file);
    } catch (const std::system_error&) {
        ::unlink(fresh.c_str());
        throw;
    }
    // The new name is safe only once its folder is written too; some file systems cannot do that, and need not.
    const int folderNumber = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderNumber < 0) return;
    ::fsync(folderNumber);
    ::close(folderNumber);
}

void removeIfLeftNew(const fs::path& file) {
    const std::string name = file.filename().string();
    if (!name.starts_with(newPrefix) || !name.ends_with(newSuffix)) return;
    try {
        clearAway(file, LOCK_NB);
    } catch (const std::system_error&) {
        // It lies there until its file is written again, and does no harm.
    }
}

}  // namespace skein
