#pragma once

#include <cerrno>
#include <cstdint>
#include <sys/types.h>
#include <sys/uio.h>

struct stat;

namespace skein {

/// The system calls that storage makes on files, with the system's results and errno; tests put failures in between.
///
/// Thread: any. They block, so they belong on the disk pool.
class FileCalls {
public:
    FileCalls() = default;
    FileCalls(const FileCalls&) = delete;
    FileCalls& operator=(const FileCalls&) = delete;
    virtual ~FileCalls() = default;

    /// The real ones.
    static FileCalls& real();
    /// Makes the call again as long as a signal interrupts it.
    template <class Call>
    static auto retried(Call call) {
        auto result = call();
        while (result < 0 && errno == EINTR) result = call();
        return result;
    }

    /// Always close-on-exec.
    virtual int open(int folder, const char* name, int flags, mode_t mode);
    virtual int makeFolder(int folder, const char* name);
    virtual int status(int file, struct stat& into);
    virtual int resize(int file, std::int64_t size);
    virtual ssize_t read(int file, const iovec* into, int count, std::int64_t offset);
    virtual ssize_t write(int file, const iovec* from, int count, std::int64_t offset);
    /// Starts to read the range into the page cache; the system may take less of it than asked.
    virtual void willRead(int file, std::int64_t offset, std::int64_t length);
    /// Drops what the page cache holds of the file and the device has, so that a read comes from the device.
    virtual void forgetCached(int file);
    /// Where the next data at or after `offset` begins; -1 with ENXIO when there is none, with another errno when the
    /// file system cannot tell.
    virtual std::int64_t nextData(int file, std::int64_t offset);
    /// The same for the next hole; a file ends in one.
    virtual std::int64_t nextHole(int file, std::int64_t offset);
    /// Returns once what was written to the file is on the device.
    virtual int sync(int file);
};

/// An open file, closed when this goes.
class FileDescriptor {
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int number) noexcept : number_(number) {}
    FileDescriptor(FileDescriptor&& other) noexcept;
    FileDescriptor& operator=(FileDescriptor&& other) noexcept;
    ~FileDescriptor();

    int number() const noexcept { return number_; }
    bool isOpen() const noexcept { return number_ >= 0; }

private:
    int number_ = -1;
};

}  // namespace skein
