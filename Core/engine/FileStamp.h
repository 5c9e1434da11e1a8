#pragma once

#include <cstdint>
#include <sys/stat.h>

namespace skein {

/// What tells a file of a torrent from one that was changed or replaced since. Exact to the system's time stamps: a
/// change within one tick of the clock behind another (milliseconds on older systems) does not show.
struct FileStamp {
    std::int64_t size = -1;     ///< bytes; -1: there is no such file
    std::int64_t modified = 0;  ///< nanoseconds since 1970
    std::uint64_t inode = 0;

    static FileStamp of(const struct stat& status) noexcept {
#ifdef __APPLE__
        const timespec& time = status.st_mtimespec;
#else
        const timespec& time = status.st_mtim;
#endif
        return {status.st_size, std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec, status.st_ino};
    }

    bool isFile() const noexcept { return size >= 0; }
    friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

}  // namespace skein
