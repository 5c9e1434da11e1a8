#pragma once

#include "Core/formats/TorrentMetaInfo.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// The files of a torrent, checked: where each lies under the download folder and in the torrent's byte stream.
///
/// Immutable; any thread.
class TorrentLayout {
public:
    struct File {
        std::string path;  ///< relative; no empty, "." or ".." component
        std::int64_t size = 0;
        std::int64_t offset = 0;
    };
    /// A part of one file.
    struct Slice {
        std::size_t file = 0;
        std::int64_t offset = 0;  ///< in the file
        std::int64_t length = 0;  ///< above 0
    };

    /// A piece is held in memory until it is whole; a session holds no more than this.
    static constexpr std::int64_t largestPiece = std::int64_t{256} << 20U;
    /// What file systems take for one component, and what the system takes for a path.
    static constexpr std::size_t longestComponent = 255;
    static constexpr std::size_t longestPath = 4096;

    /// Nothing to store.
    TorrentLayout() = default;
    /// Throws StorageException for a torrent that cannot be kept safely inside a folder.
    explicit TorrentLayout(const TorrentMetaInfo& metaInfo);

    const std::vector<File>& files() const noexcept { return files_; }
    std::int64_t totalSize() const noexcept { return totalSize_; }

    /// Calls `visit(Slice)` for each file that [offset, offset + length) touches, in the torrent's order.
    template <class Visit>
    void forEachSlice(std::int64_t offset, std::int64_t length, Visit visit) const {
        const std::int64_t end = offset + length;
        for (std::size_t at = fileAt(offset); at < files_.size() && offset < end; ++at) {
            const File& file = files_[at];
            const std::int64_t last = file.offset + file.size < end ? file.offset + file.size : end;
            if (last <= offset) continue;
            visit(Slice{at, offset - file.offset, last - offset});
            offset = last;
        }
    }

    /// BEP 47: padding between files is listed as files ".pad/<size>", and two of one size may bear one name. Both hold
    /// zeros only, so they share the file.
    static bool isPadding(const File& file);
    /// `path` without empty and "." components. Throws StorageException (unsafePath).
    static std::string normalised(std::string_view path);

private:
    std::size_t fileAt(std::int64_t offset) const noexcept;

    std::vector<File> files_;
    std::int64_t totalSize_ = 0;
};

}  // namespace skein
