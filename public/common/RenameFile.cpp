#include "public/common/RenameFile.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace skein {

namespace {

/// Where the file system cannot rename that way: a second name, which never replaces one, then the first one goes.
int linkThenUnlink(int folder, const std::string& from, const std::string& to) {
    if (::linkat(folder, from.c_str(), folder, to.c_str(), 0) != 0) return -1;
    return ::unlinkat(folder, from.c_str(), 0);
}

}  // namespace

int renameWithoutReplacing(int folder, const std::string& from, const std::string& to) {
#ifdef __APPLE__
    const int result = ::renameatx_np(folder, from.c_str(), folder, to.c_str(), RENAME_EXCL);
    const bool isUnsupported = result != 0 && (errno == ENOTSUP || errno == EINVAL);
#else
    const int result = ::renameat2(folder, from.c_str(), folder, to.c_str(), RENAME_NOREPLACE);
    const bool isUnsupported = result != 0 && (errno == EINVAL || errno == ENOSYS);
#endif
    return isUnsupported ? linkThenUnlink(folder, from, to) : result;
}

int moveAside(int folder, const std::string& name) {
    for (int copy = 1;; ++copy) {
        const std::string aside = name + ".before" + (copy == 1 ? "" : "." + std::to_string(copy));
        if (renameWithoutReplacing(folder, name, aside) == 0) return 0;
        if (errno != EEXIST) return -1;
    }
}

void moveAside(const std::filesystem::path& file) {
    if (moveAside(AT_FDCWD, file.string()) != 0) throw std::system_error(errno, std::generic_category(), file.string());
}

}  // namespace skein
