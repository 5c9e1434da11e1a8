#pragma once

#include "public/common/Bytes.h"
#include "public/common/FileIdentity.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace skein {

/// A file that is being downloaded: NAME.part in its folder until it is whole, then NAME.
///
/// While it is open no other PartFile, of this process or another, opens it. All calls throw std::system_error with the
/// system's reason, block, and belong on the disk pool, one at a time.
class PartFile {
public:
    static constexpr std::string_view suffix = ".part";

    /// A new one for `name`, or for "name (1)", "name (2)", … where there are such files already.
    static std::unique_ptr<PartFile> create(const std::filesystem::path& folder, const std::string& name);
    /// The one that is there; null when there is none, or another file than `known` (no file: any) stands in its place.
    /// Throws device_or_resource_busy when it is open elsewhere.
    static std::unique_ptr<PartFile> reopen(const std::filesystem::path& folder, const std::string& name,
                                            const FileIdentity& known);
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
    /// What could not be written for want of space is not there afterwards.
    void append(ByteView bytes);
    void truncate(std::int64_t size);
    /// Returns once what was written is on the device.
    void sync();
    /// Gives the file its name, or another one when that was taken meanwhile; nothing is overwritten. Fails when
    /// another file took its place. `foretell` is called with the name just before. Returns once the folder is on the
    /// device, too.
    void finish(const std::function<void(const std::string& name)>& foretell);
    /// Deletes it; nothing but closing it is left to be done.
    void discard() noexcept;

private:
    PartFile(std::filesystem::path folder, std::string name, int number, std::int64_t size);
    bool isInPlace() const { return FileIdentity::at(path()) == identity(); }
    std::filesystem::path path() const { return folder_ / (name_ + std::string(suffix)); }

    std::filesystem::path folder_;
    std::string name_;
    int number_;
    std::int64_t size_;
};

}  // namespace skein
