#pragma once

#include "Core/engine/FileCalls.h"
#include "Core/engine/FileStamp.h"
#include "public/common/Bytes.h"
#include "public/common/FileIdentity.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace skein {

/// A file that is being downloaded: NAME.part in its folder until it is whole, then NAME.
///
/// While it is open no other PartFile, of this process or another, opens it. Programs that know nothing of that may
/// change it all the same: `isAltered` tells. All calls throw std::system_error with the system's reason, block, and
/// belong on the disk pool, one at a time. `calls` outlive the part.
class PartFile {
public:
    static constexpr std::string_view suffix = ".part";

    /// Called with the name that a file is about to get, so that it can be put down before there is such a file.
    using Foretell = std::function<void(const std::string& name)>;

    /// A new one for `name`, or for "name (1)", "name (2)", … where there are such files already.
    static std::unique_ptr<PartFile> create(const std::filesystem::path& folder, const std::string& name,
                                            const Foretell& foretell, FileCalls& calls = FileCalls::real());
    /// The one that is there; null when there is none, or another file than `known` stands in its place. Where no file
    /// is known, its making was foretold and no more: only an empty one that nobody has open is taken for it.
    /// Throws device_or_resource_busy when it is open elsewhere.
    static std::unique_ptr<PartFile> reopen(const std::filesystem::path& folder, const std::string& name,
                                            const FileIdentity& known, FileCalls& calls = FileCalls::real());
    /// Deletes the one that `reopen` would open.
    static void remove(const std::filesystem::path& folder, const std::string& name, const FileIdentity& known);

    PartFile(const PartFile&) = delete;
    PartFile& operator=(const PartFile&) = delete;
    ~PartFile();

    /// Of the finished file.
    const std::string& name() const noexcept { return name_; }
    std::int64_t size() const noexcept { return size_; }
    /// Which file it is, whatever its name.
    FileIdentity identity() const { return FileIdentity::of(number_); }
    /// How our own last write left it.
    const FileStamp& stamp() const noexcept { return left_; }
    /// Whether it is still the file of its name. Another one that stands there is not ours.
    bool isInPlace() const { return FileIdentity::at(path()) == identity(); }
    /// Whether it is not what was written: another program changed it or took its place, or a failed sync could not be
    /// undone.
    bool isAltered();
    /// What could not be written for want of space is not there afterwards.
    void append(ByteView bytes);
    /// Only what comes before `size` is left. When nothing is left, nothing is altered any more either.
    void truncate(std::int64_t size);
    /// So many bytes were synced by whoever had it open before.
    void noteSynced(std::int64_t bytes) noexcept { syncedBytes_ = std::min(bytes, size_); }
    /// Returns once what was written is on the device. When that fails, what was written since the last sync is cut
    /// off: the system may have dropped it, and says so only once.
    void sync();
    /// Gives the file its name, or another one when that was taken meanwhile; nothing is overwritten. Fails when
    /// another file took its place. Returns once the folder is on the device, too.
    void finish(const Foretell& foretell);
    /// Deletes it; nothing but closing it is left to be done.
    void discard() noexcept;

private:
    PartFile(std::filesystem::path folder, std::string name, int number, FileCalls& calls);
    FileStamp look() const;
    void compare();
    std::filesystem::path path() const { return folder_ / (name_ + std::string(suffix)); }

    std::filesystem::path folder_;
    std::string name_;
    const int number_;
    FileCalls& calls_;
    std::int64_t size_ = 0;
    std::int64_t syncedBytes_ = 0;
    FileStamp left_;
    bool isAltered_ = false;
};

}  // namespace skein
