#include "app/HomeFolder.h"

#include "app/Command.h"
#include "public/common/PrivateFolder.h"
#include "public/common/WholeFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace skein {

namespace {

namespace fs = std::filesystem;

constexpr std::array<std::string_view, 4> keptFolders{"logs", "resume", "torrents", "removals"};
constexpr std::array<std::string_view, 6> keptFiles{"tasks.json", "settings.db", "claims.db",
                                                    "talk.db",    "daemon.json", "daemon.lock"};

/// The user's own files may lie in the home as well (a download folder, for one), and keep the modes that they have.
bool isKeptFile(std::string_view name) {
    return std::any_of(keptFiles.begin(), keptFiles.end(), [&](std::string_view kept) {
        const std::string_view rest = name.substr(std::min(kept.size(), name.size()));
        return name.starts_with(kept) && (rest.empty() || rest.front() == '.' || rest.front() == '-');
    });
}

fs::path created(fs::path path) {
    try {
        createPrivateFolder(path);
    } catch (const std::system_error& error) {
        throw CommandFailure(path.string(), error.code().message());
    }
    return path;
}

}  // namespace

HomeFolder::HomeFolder(fs::path path) : path_(created(std::move(path))) {
    try {
        narrow(path_ / ".");  // through a link to the folder that it leads to
        narrowKept();
    } catch (const std::system_error& error) {
        throw CommandFailure(path_.string(), "cannot be made private: " + error.code().message());
    }
}

void HomeFolder::narrowKept() {
    for (const fs::directory_entry& entry : fs::directory_iterator(path_)) {
        const std::string name = entry.path().filename().string();
        if (isKeptFile(name)) narrow(entry.path());
        // A new one is called ".tasks.json.new" before it takes its name.
        if (name.starts_with('.') && isKeptFile(name.substr(1))) removeIfLeftNew(entry.path());
    }
    for (const std::string_view name : keptFolders)
        if (fs::is_directory(fs::symlink_status(path_ / name))) narrowAll(path_ / name);
}

void HomeFolder::narrowAll(const fs::path& folder) {
    narrow(folder);
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        removeIfLeftNew(entry.path());
        narrow(entry.path());
    }
}

void HomeFolder::narrow(const fs::path& path) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        // Another process of ours removes its files while we look.
        if (errno == ENOENT) return;
        throw std::system_error(errno, std::generic_category(), path.string());
    }
    if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode)) return;
    if (status.st_uid != ::geteuid())
        throw CommandFailure(path.lexically_normal().string(),
                             "belongs to another user - choose another home with --home");
    constexpr mode_t ofOthers = S_IRWXG | S_IRWXO;
    if ((status.st_mode & ofOthers) == 0) return;
    if (::chmod(path.c_str(), S_ISDIR(status.st_mode) ? S_IRWXU : S_IRUSR | S_IWUSR) != 0 && errno != ENOENT)
        throw std::system_error(errno, std::generic_category(), path.string());
    ++narrowedCount_;
}

}  // namespace skein
