#pragma once

#include "Core/engine/FileCalls.h"

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
        if (writesLeft-- <= 0) return errno = writeError, -1;
        const iovec part = shortened(*from);
        return longestTransfer > 0 ? FileCalls::write(file, &part, 1, offset)
                                   : FileCalls::write(file, from, count, offset);
    }
    ssize_t read(int file, const iovec* into, int count, std::int64_t offset) override {
        ++reads;
        if (isInterrupted()) return -1;
        const iovec part = shortened(*into);
        return longestTransfer > 0 ? FileCalls::read(file, &part, 1, offset)
                                   : FileCalls::read(file, into, count, offset);
    }
    std::int64_t nextData(int file, std::int64_t offset) override {
        return knowsHoles ? FileCalls::nextData(file, offset) : (errno = EINVAL, -1);
    }
    int sync(int file) override {
        ++syncs;
        return FileCalls::sync(file);
    }

    /// As RLIMIT_NOFILE, but for these calls only: the sanitizers' own checks need descriptors now and then.
    int descriptorLimit = std::numeric_limits<int>::max();
    std::atomic<int> writesLeft = std::numeric_limits<int>::max();
    int writeError = ENOSPC;
    std::size_t longestTransfer = 0;  // 0: as long as asked
    bool interruptsEverySecond = false;
    bool knowsHoles = true;
    std::atomic<int> reads = 0;
    std::atomic<int> syncs = 0;

private:
    bool isInterrupted() {
        if (!interruptsEverySecond || ++calls_ % 2 == 0) return false;
        errno = EINTR;
        return true;
    }
    iovec shortened(const iovec& buffer) const {
        return {buffer.iov_base, longestTransfer > 0 ? std::min(buffer.iov_len, longestTransfer) : buffer.iov_len};
    }

    std::atomic<int> calls_ = 0;
};

}  // namespace skein
