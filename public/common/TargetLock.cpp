#include "public/common/TargetLock.h"

#include "public/common/Bytes.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace skein {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void throwSystem(const fs::path& path, int error) {
    throw std::system_error(error, std::generic_category(), path.string());
}

/// A folder for the locks of this user alone, the same for every home.
fs::path lockFolder() {
    fs::path folder = fs::temp_directory_path() / ("skein-" + std::to_string(::getuid()));
    if (::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) throwSystem(folder, errno);
    struct stat status {};
    if (::lstat(folder.c_str(), &status) != 0) throwSystem(folder, errno);
    if (!S_ISDIR(status.st_mode) || status.st_uid != ::getuid()) throwSystem(folder, EPERM);
    return folder;
}

std::string holderOf(int file) {
    std::string text(32, '\0');
    const ssize_t length = ::pread(file, text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

}  // namespace

TargetLock::TargetLock(const fs::path& folder, const SHA1Digest& source) {
    const std::string target = fs::weakly_canonical(fs::absolute(folder)).string() + '\n' + toHex(source);
    const fs::path path = lockFolder() / (toHex(sha1(toBytes(target))) + ".lock");
    file_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (file_ < 0) throwSystem(path, errno);
    if (::flock(file_, LOCK_EX | LOCK_NB) != 0) {
        const std::string holder = holderOf(file_);
        ::close(file_);
        throw TargetTaken("process " + holder + " is downloading the same to " + folder.string());
    }
    const std::string ours = std::to_string(::getpid());
    if (::ftruncate(file_, 0) != 0 || ::pwrite(file_, ours.data(), ours.size(), 0) < 0) {
        // Only the name of the holder is lost; the lock itself holds.
    }
}

TargetLock::~TargetLock() { ::close(file_); }

}  // namespace skein
