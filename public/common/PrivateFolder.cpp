#include "public/common/PrivateFolder.h"

#include <cerrno>
#include <sys/stat.h>
#include <system_error>

namespace skein {

void createPrivateFolder(const std::filesystem::path& folder) {
    if (folder.empty() || std::filesystem::is_directory(folder)) return;
    createPrivateFolder(folder.parent_path());
    if (::mkdir(folder.c_str(), S_IRWXU) == 0) return;
    const int error = errno;
    // Another process may have been first.
    if (error != EEXIST || !std::filesystem::is_directory(folder))
        throw std::system_error(error, std::generic_category(), folder.string());
}

}  // namespace skein
