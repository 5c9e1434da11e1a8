#pragma once

#include "Core/engine/FileCalls.h"
#include "Core/engine/OpenFiles.h"
#include "Core/engine/StorageMode.h"
#include "public/common/FileIdentity.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

namespace skein {

/// Opens a torrent's files below its download folder, one folder after the other; a download follows no symbolic link.
///
/// It keeps the folder of the last file for the next one's sake, so it is for one call's files, not to be kept: folders
/// move. Throws StorageException. Thread: any, one at a time; all calls block.
class FileOpener {
public:
    /// `root`, `openFiles` and `calls` outlive this.
    FileOpener(const std::filesystem::path& root, StorageMode mode, OpenFiles& openFiles, FileCalls& calls);

    /// `path` is below `root`, with slashes.
    FileDescriptor open(const std::string& path, OpenFiles::Access access);
    /// Makes the file, and the folders that it needs, and opens it for writing. Never opens one that is there.
    FileDescriptor createNew(const std::string& path);
    /// What stands at `path`, without opening it; a default one where nothing does.
    struct Found {
        std::int64_t sizeBytes = 0;
        FileIdentity identity;
    };
    Found look(const std::string& path);
    /// Renames the file to NAME.before, or NAME.before.2 and so on where that is taken.
    void moveAside(const std::string& path);
    /// In bytes; what is no regular file is refused.
    std::int64_t sizeOf(const FileDescriptor& file, const std::string& path);

private:
    FileDescriptor open(const std::string& path, int flags);
    void enterFolderOf(const std::string& path, bool mayCreate);
    FileDescriptor openBelow(const FileDescriptor& folder, const std::string& name, bool mayCreate,
                             const std::string& path);
    int tryOpen(int folder, const char* name, int flags);

    const std::filesystem::path& root_;
    const StorageMode mode_;
    OpenFiles& openFiles_;
    FileCalls& calls_;
    FileDescriptor folder_;
    std::string folderPath_;  // of folder_, as in the torrent
};

}  // namespace skein
