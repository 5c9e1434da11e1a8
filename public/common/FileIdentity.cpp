#include "public/common/FileIdentity.h"

#include <fcntl.h>
#include <sys/stat.h>
#ifndef __APPLE__
#include <sys/sysmacros.h>
#endif

namespace skein {

namespace {

#ifdef __APPLE__

FileIdentity look(int folder, const char* name, int flags) {
    struct stat status {};
    const bool isOpenFile = *name == '\0';
    if ((isOpenFile ? ::fstat(folder, &status) : ::fstatat(folder, name, &status, flags)) != 0) return {};
    const timespec& born = status.st_birthtimespec;
    return {static_cast<std::uint64_t>(status.st_dev), status.st_ino,
            std::int64_t{born.tv_sec} * 1'000'000'000 + born.tv_nsec};
}
constexpr int openFile = 0;

#else

FileIdentity look(int folder, const char* name, int flags) {
    struct statx status {};
    if (::statx(folder, name, flags, STATX_INO | STATX_BTIME, &status) != 0) return {};
    FileIdentity identity{::makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino, 0};
    if ((status.stx_mask & STATX_BTIME) != 0)
        identity.born = std::int64_t{status.stx_btime.tv_sec} * 1'000'000'000 + status.stx_btime.tv_nsec;
    return identity;
}
constexpr int openFile = AT_EMPTY_PATH;

#endif

}  // namespace

FileIdentity FileIdentity::of(int number) { return look(number, "", openFile); }
FileIdentity FileIdentity::at(int folder, const char* name) { return look(folder, name, AT_SYMLINK_NOFOLLOW); }
FileIdentity FileIdentity::at(const std::filesystem::path& file) { return at(AT_FDCWD, file.c_str()); }

}  // namespace skein
