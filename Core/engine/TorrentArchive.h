#pragma once

#include "public/common/Bytes.h"
#include "public/common/SHA1.h"

#include <filesystem>
#include <optional>
#include <string_view>

namespace skein {

/// What a program keeps of each torrent under its home, by info-hash, so that torrents of one name do not meet: a copy
/// of the `.torrent`, the resume record, and which `.torrent` it wrote beside the download.
///
/// Plain paths; cheap to copy. Thread: any; all but the constructor make file calls and belong on the disk pool.
class TorrentArchive {
public:
    explicit TorrentArchive(std::filesystem::path home) : home_(std::move(home)) {}

    /// Writes `data` as NAME.torrent beside the download. Returns the path. Throws std::system_error when it cannot be
    /// written, or another file bears that name.
    std::filesystem::path save(const SHA1Digest& infoHash, const std::filesystem::path& folder, std::string_view name,
                               ByteView data) const;
    /// Keeps a copy under the home. Throws std::system_error.
    void keep(const SHA1Digest& infoHash, ByteView data) const;
    /// The copy kept, if it is this torrent's; nothing when there is none.
    std::optional<Bytes> torrent(const SHA1Digest& infoHash) const;
    /// The same, or else NAME.torrent beside the download.
    std::optional<Bytes> torrent(const SHA1Digest& infoHash, const std::filesystem::path& folder,
                                 std::string_view name) const;

    /// Empty when there is none.
    Bytes resumeRecord(const SHA1Digest& infoHash) const;
    /// Throws std::system_error.
    void saveResumeRecord(const SHA1Digest& infoHash, ByteView record) const;
    void forgetResumeRecord(const SHA1Digest& infoHash) const;

    /// Deletes all of it, and the `.torrent` beside the download if it was written by `save` and is still the same.
    void forget(const SHA1Digest& infoHash) const;

private:
    std::filesystem::path copyOf(const SHA1Digest& infoHash) const;
    std::filesystem::path markOf(const SHA1Digest& infoHash) const;
    std::filesystem::path resumeRecordOf(const SHA1Digest& infoHash) const;

    std::filesystem::path home_;
};

}  // namespace skein
