#include "public/common/TargetLock.h"

#include "public/common/Bytes.h"

#include <cerrno>
#include <chrono>
#include <fcntl.h>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>

namespace skein {

namespace {

namespace fs = std::filesystem;

/// Every process that has the file open holds this place together with the others; who has it alone may remove the
/// file.
constexpr std::int64_t presence = 0;

struct flock describe(short kind, std::int64_t place) {
    struct flock lock {};
    lock.l_type = kind;
    lock.l_whence = SEEK_SET;
    lock.l_start = place;
    lock.l_len = 1;
    return lock;
}

/// 0, or the errno.
int setLock(int file, short kind, std::int64_t place) {
    struct flock lock = describe(kind, place);
    return ::fcntl(file, F_SETLK, &lock) == 0 ? 0 : errno;
}

bool isTaken(int error) { return error == EAGAIN || error == EACCES; }

std::int64_t placeOf(const SHA1Digest& source) {
    return 1 + static_cast<std::int64_t>(readBigEndian<std::uint64_t>(source) >> 2U);
}

std::string takenText(const std::string& holder, const fs::path& folder) {
    return holder + " is downloading the same to " + folder.string();
}

}  // namespace

/// The lock file of one folder, open. The registry's mutex is held in all calls.
class TargetLock::File {
public:
    /// Null where nothing can be locked.
    static std::shared_ptr<File> open(const fs::path& folder, bool mayCreate);
    File(fs::path path, int number) : path_(std::move(path)), number_(number) {}
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    ~File() {
        if (held_.empty() && setLock(number_, F_WRLCK, presence) == 0) ::unlink(path_.c_str());
        ::close(number_);
    }

    /// Throws TargetTaken.
    void take(std::int64_t place, const fs::path& folder) {
        if (held_.contains(place)) throw TargetTaken(takenText("process " + std::to_string(::getpid()), folder));
        if (isTaken(setLock(number_, F_WRLCK, place))) throw TargetTaken(takenText(holderOf(place), folder));
        held_.insert(place);
    }
    void release(std::int64_t place) {
        setLock(number_, F_UNLCK, place);
        held_.erase(place);
    }
    bool isHeld(std::int64_t place) const {
        struct flock lock = describe(F_WRLCK, place);
        return held_.contains(place) || (::fcntl(number_, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK);
    }

private:
    std::string holderOf(std::int64_t place) const {
        struct flock lock = describe(F_WRLCK, place);
        const bool isKnown = ::fcntl(number_, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK && lock.l_pid > 0;
        return isKnown ? "process " + std::to_string(lock.l_pid) : "another process";
    }

    const fs::path path_;
    const int number_;
    std::set<std::int64_t> held_;
};

std::shared_ptr<TargetLock::File> TargetLock::File::open(const fs::path& folder, bool mayCreate) {
    const fs::path path = folder / fileName;
    for (int attempts = 100; attempts > 0; --attempts) {
        const int number = ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | (mayCreate ? O_CREAT : 0), 0666);
        if (number < 0) return nullptr;
        const int failure = setLock(number, F_RDLCK, presence);
        struct stat opened {};
        struct stat there {};
        const bool isThere = ::fstat(number, &opened) == 0 && ::lstat(path.c_str(), &there) == 0 &&
                             opened.st_ino == there.st_ino && opened.st_dev == there.st_dev;
        if (failure == 0 && isThere) return std::make_shared<File>(path, number);
        ::close(number);
        if (failure != 0 && !isTaken(failure)) return nullptr;
        // Another process is removing it.
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return nullptr;
}

/// The lock files that this process has open, by folder: the system drops all of a process's locks on a file when it
/// closes any of its descriptors.
class TargetLock::Registry {
public:
    static Registry& ofProcess() {
        static Registry registry;
        return registry;
    }

    std::shared_ptr<File> fileOf(const fs::path& folder, bool mayCreate) {
        struct stat status {};
        if (::stat(folder.c_str(), &status) != 0) {
            if (!mayCreate) return nullptr;
            throw std::system_error(errno, std::generic_category(), folder.string());
        }
        std::weak_ptr<File>& known = files_[{status.st_dev, status.st_ino}];
        std::shared_ptr<File> file = known.lock();
        if (!file) known = file = File::open(folder, mayCreate);
        if (!file) files_.erase({status.st_dev, status.st_ino});
        return file;
    }
    void dropUnused() {
        std::erase_if(files_, [](const auto& entry) { return entry.second.expired(); });
    }

    std::mutex mutex;

private:
    std::map<std::pair<dev_t, ino_t>, std::weak_ptr<File>> files_;
};

TargetLock::TargetLock(const fs::path& folder, const SHA1Digest& source) : place_(placeOf(source)) {
    fs::create_directories(folder);
    Registry& registry = Registry::ofProcess();
    const std::lock_guard lock(registry.mutex);
    file_ = registry.fileOf(folder, true);
    if (!file_) return;
    try {
        file_->take(place_, folder);
    } catch (const TargetTaken&) {
        file_.reset();  // while the mutex is held
        throw;
    }
}

TargetLock::~TargetLock() {
    if (!file_) return;
    Registry& registry = Registry::ofProcess();
    const std::lock_guard lock(registry.mutex);
    file_->release(place_);
    file_.reset();
    registry.dropUnused();
}

bool TargetLock::isHeld(const fs::path& folder, const SHA1Digest& source) {
    Registry& registry = Registry::ofProcess();
    const std::lock_guard lock(registry.mutex);
    const std::shared_ptr<File> file = registry.fileOf(folder, false);
    return file && file->isHeld(placeOf(source));
}

}  // namespace skein
