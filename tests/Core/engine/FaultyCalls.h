#pragma once

#include "Core/engine/FileCalls.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <limits>
#include <unistd.h>

namespace skein {

/// The real file calls, made as unkind as the system may be, or failing.
class FaultyCalls final : public FileCalls {
public:
    int open(int folder, const char* name, int flags, mode_t mode) override {
        const int file = FileCalls::open(folder, name, flags, mode);
        if (file < descriptorLimit) return file;
        ::close(file);
        return errno = EMFILE, -1;
    }
    ssize_t write(int file, const iovec* from, int count, std::int64_t offset) override {
        if (isInterrupted()) return -1;
        if (writesLeft-- <= 0) return errno = ENOSPC, -1;
        if (longestTransfer == 0) return FileCalls::write(file, from, count, offset);
        const iovec part{from->iov_base, std::min(from->iov_len, longestTransfer)};
        return FileCalls::write(file, &part, 1, offset);
    }
    ssize_t read(int file, const iovec* into, int count, std::int64_t offset) override {
        ++reads;
        if (readError != 0) return errno = readError, -1;
        if (isInterrupted()) return -1;
        if (longestTransfer == 0) return FileCalls::read(file, into, count, offset);
        const iovec part{into->iov_base, std::min(into->iov_len, longestTransfer)};
        return FileCalls::read(file, &part, 1, offset);
    }
    std::int64_t nextData(int file, std::int64_t offset) override {
        return knowsHoles ? FileCalls::nextData(file, offset) : (errno = EINVAL, -1);
    }
    int sync(int file) override {
        ++syncs;
        if (syncsThatLose-- <= 0) return FileCalls::sync(file);
        const char nothing[16] = {};
        FileCalls::write(file, std::array{iovec{const_cast<char*>(nothing), sizeof nothing}}.data(), 1, 0);
        return errno = EIO, -1;
    }

    /// As RLIMIT_NOFILE, but for these calls only: the sanitizers' own checks need descriptors now and then.
    int descriptorLimit = std::numeric_limits<int>::max();
    std::atomic<int> writesLeft = std::numeric_limits<int>::max();
    int readError = 0;
    std::size_t longestTransfer = 0;  // 0: as long as asked
    bool interruptsEverySecond = false;
    bool knowsHoles = true;
    /// So many syncs fail, and what was written to the file's first bytes is gone, as with a device that fails.
    std::atomic<int> syncsThatLose = 0;
    std::atomic<int> reads = 0;
    std::atomic<int> syncs = 0;

private:
    bool isInterrupted() {
        if (!interruptsEverySecond || ++calls_ % 2 == 0) return false;
        errno = EINTR;
        return true;
    }
    std::atomic<int> calls_ = 0;
};

}  // namespace skein
