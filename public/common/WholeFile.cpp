#include "public/common/WholeFile.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

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
    File(const File&) = delete;
    File& operator=(const File&) = delete;
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

    void sync() {
        if (::fsync(number_) != 0) fail(path_);
    }

    /// Network file systems tell of a failed write only here.
    void close() {
        const int number = number_;
        number_ = -1;
        if (::close(number) != 0) fail(path_);
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
    const fs::path fresh = folder / ("." + file.filename().string() + "." + std::to_string(::getpid()) + ".new");
    // One that is left from an earlier life of this process id is not ours to trust.
    ::unlink(fresh.c_str());
    try {
        File target(fresh, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, static_cast<mode_t>(mode));
        target.write(bytes);
        target.sync();
        target.close();
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

}  // namespace skein
