#include "Core/engine/TorrentLayout.h"

#include "Core/engine/StorageError.h"

#include <algorithm>
#include <limits>
#include <unordered_map>

namespace skein {

namespace {

/// Refuses two files at one path, and a file where another one needs a folder.
void refuseClashes(const std::vector<TorrentLayout::File>& files) {
    std::unordered_map<std::string_view, const TorrentLayout::File*> byPath;
    byPath.reserve(files.size());
    for (const TorrentLayout::File& file : files) {
        const auto [other, isNew] = byPath.emplace(file.path, &file);
        if (isNew || (TorrentLayout::isPadding(file) && other->second->size == file.size)) continue;
        throw StorageException(StorageError::duplicatePath, file.path);
    }
    for (const TorrentLayout::File& file : files) {
        const std::string_view path = file.path;
        for (std::size_t slash = path.rfind('/'); slash != std::string_view::npos && slash > 0;
             slash = path.rfind('/', slash - 1))
            if (byPath.contains(path.substr(0, slash)))
                throw StorageException(StorageError::duplicatePath, path.substr(0, slash));
    }
}

void refusePieces(const TorrentMetaInfo& metaInfo, std::int64_t totalSize) {
    if (metaInfo.pieceLength < 1)
        throw StorageException(StorageError::invalidPieceLength, std::to_string(metaInfo.pieceLength));
    const std::int64_t largest = std::min(metaInfo.pieceLength, totalSize);
    if (largest > TorrentLayout::largestPiece)
        throw StorageException(StorageError::pieceTooLarge, std::to_string(largest) + " bytes");
    const std::int64_t needed = totalSize / metaInfo.pieceLength + (totalSize % metaInfo.pieceLength != 0 ? 1 : 0);
    if (metaInfo.totalSize != totalSize || needed != metaInfo.pieceCount())
        throw StorageException(StorageError::pieceCountMismatch, std::to_string(metaInfo.pieceCount()) + " pieces, " +
                                                                     std::to_string(totalSize) + " bytes");
}

}  // namespace

TorrentLayout::TorrentLayout(const TorrentMetaInfo& metaInfo) {
    files_.reserve(metaInfo.files.size());
    for (const TorrentFileInfo& file : metaInfo.files) {
        if (file.size < 0 || file.size > std::numeric_limits<std::int64_t>::max() - totalSize_)
            throw StorageException(StorageError::invalidFileSize, std::to_string(file.size));
        files_.push_back({normalised(file.path), file.size, totalSize_});
        totalSize_ += file.size;
    }
    refusePieces(metaInfo, totalSize_);
    refuseClashes(files_);
}

bool TorrentLayout::isPadding(const File& file) {
    const std::string tail = ".pad/" + std::to_string(file.size);
    return file.path == tail || file.path.ends_with("/" + tail);
}

std::string TorrentLayout::normalised(std::string_view path) {
    // What is shown of a bad path is cut: it may be megabytes long.
    const auto refuse = [&] { throw StorageException(StorageError::unsafePath, path.substr(0, longestComponent)); };
    if (path.starts_with('/') || path.find('\0') != std::string_view::npos) refuse();
    std::string safe;
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        const std::string_view component = path.substr(start, end - start);
        start = end + 1;
        if (component.empty() || component == ".") continue;
        if (component == ".." || component.size() > longestComponent) refuse();
        if (!safe.empty()) safe += '/';
        safe += component;
        if (safe.size() > longestPath) refuse();
    }
    if (safe.empty()) refuse();
    return safe;
}

std::size_t TorrentLayout::fileAt(std::int64_t offset) const noexcept {
    // The last file that begins at or before `offset`; of several empty ones at one place, whichever.
    const auto after = std::upper_bound(files_.begin(), files_.end(), offset,
                                        [](std::int64_t value, const File& file) { return value < file.offset; });
    return after == files_.begin() ? 0 : static_cast<std::size_t>(after - files_.begin()) - 1;
}

}  // namespace skein
