#pragma once

#include <cstdint>
#include <filesystem>

namespace skein {

/// Which file it is that a name or a descriptor stands for.
///
/// A file that took another one's place differs, also where the system gave it the number of the one that is gone: it
/// was born later. File systems that keep no time of birth cannot tell these two apart.
/// Thread: any; the operations make file calls.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;  ///< 0: no file
    std::int64_t born = 0;    ///< nanoseconds since 1970; 0 where the file system keeps none

    /// Of the open file `number`.
    static FileIdentity of(int number);
    /// Of what `name` names in the open folder `folder`: a link itself, not what it leads to.
    static FileIdentity at(int folder, const char* name);
    static FileIdentity at(const std::filesystem::path& file);

    bool isFile() const noexcept { return inode != 0; }
    friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};

}  // namespace skein
