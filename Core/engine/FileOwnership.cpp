#include "Core/engine/FileOwnership.h"

#include "Core/engine/StorageError.h"
#include "public/common/TargetLock.h"

#include <algorithm>
#include <cerrno>

namespace skein {

FileOwnership::FileOwnership(const TorrentLayout& layout, const std::filesystem::path& folder, FileCalls& calls,
                             const SHA1Digest& torrent, ClaimTerms terms)
    : layout_(layout),
      folder_(folder),
      calls_(calls),
      torrent_(torrent),
      terms_(terms),
      files_(layout.files().size()) {}

std::string FileOwnership::pathOf(std::size_t file) const { return (folder_ / layout_.files()[file].path).string(); }

void FileOwnership::survey(FileOpener& opener, std::size_t first, std::size_t count) {
    if (first == 0) {
        files_.assign(layout_.files().size(), {});
        known_.assign(layout_.files().size(), {});
        news_.clear();
        if (terms_.claims != nullptr)
            for (const FileClaims::Claim& claim : terms_.claims->claimsOf(torrent_))
                if (claim.file < known_.size()) known_[claim.file] = claim.identity;
    }
    const std::size_t end = std::min(first + count, files_.size());
    for (std::size_t file = first; file < end; ++file) {
        const FileOpener::Found found = opener.look(layout_.files()[file].path);
        files_[file] = found.identity;
        if (found.sizeBytes > layout_.files()[file].size) clear(opener, file);
    }
}

std::vector<bool> FileOwnership::matchedFiles(const FoundPieces& found) const {
    std::vector<bool> isMatched(files_.size());
    std::vector<std::int64_t> matchedBytes(files_.size());
    found.good.forEach([&](int piece) {
        const std::int64_t start = piece * found.lengthBytes;
        bool hasNews = false;
        layout_.forEachSlice(
            start, std::min(found.lengthBytes, layout_.totalSize() - start), [&](const TorrentLayout::Slice& slice) {
                matchedBytes[slice.file] += slice.length;
                if (matchedBytes[slice.file] == layout_.files()[slice.file].size) isMatched[slice.file] = true;
                hasNews |= !isMatched[slice.file] && files_[slice.file].isFile() && !isKnown(slice.file);
            });
        if (!hasNews || !found.isTelling(piece)) return;
        layout_.forEachSlice(start, std::min(found.lengthBytes, layout_.totalSize() - start),
                             [&](const TorrentLayout::Slice& slice) { isMatched[slice.file] = true; });
    });
    return isMatched;
}

void FileOwnership::take(FileOpener& opener, const FoundPieces& found) {
    const std::vector<bool> isMatched = matchedFiles(found);
    for (std::size_t file = 0; file < files_.size(); ++file) {
        if (files_[file].isFile() && !mayTake(opener, file, isMatched[file])) clear(opener, file);
        if (!files_[file].isFile() || !isKnown(file)) news_.push_back({file, files_[file]});
    }
    known_ = {};
    if (terms_.claims != nullptr && !news_.empty())
        terms_.claims->begin({torrent_, std::filesystem::absolute(folder_), terms_.isListed}, news_);
}

bool FileOwnership::mayTake(FileOpener& opener, std::size_t file, bool isMatched) {
    if (isKnown(file)) return true;
    if (isAnothers(files_[file])) return false;
    return isMatched || holdsNothing(opener, file);
}

bool FileOwnership::isAnothers(const FileIdentity& identity) const {
    if (terms_.claims == nullptr) return false;
    // One that only once downloaded it has no use for it any more.
    const auto holder = terms_.claims->holderOf(identity);
    return holder && holder->download != torrent_ &&
           (holder->isListed || TargetLock::isHeld(holder->folder, holder->download));
}

bool FileOwnership::holdsNothing(FileOpener& opener, std::size_t file) const {
    const std::string& path = layout_.files()[file].path;
    const FileDescriptor open = opener.open(path, OpenFiles::Access::read);
    if (opener.sizeOf(open, path) == 0) return true;
    return FileCalls::retried([&] { return calls_.nextData(open.number(), 0); }) < 0 && errno == ENXIO;
}

/// Has a foreign file out of the way, or fails. What another task owns is not even moved.
void FileOwnership::clear(FileOpener& opener, std::size_t file) {
    if (!terms_.movesAside || isAnothers(files_[file])) throw StorageException::foreignFile(pathOf(file));
    opener.moveAside(layout_.files()[file].path);
    files_[file] = {};
}

void FileOwnership::makeMissing(FileOpener& opener, std::size_t first, std::size_t count) {
    const std::size_t end = std::min(first + count, news_.size());
    for (std::size_t index = first; index < end; ++index) {
        FileClaims::Claim& claim = news_[index];
        if (claim.identity.isFile()) continue;
        const TorrentLayout::File& entry = layout_.files()[claim.file];
        // Padding of one size shares one file, which an entry before this one may have made.
        if (TorrentLayout::isPadding(entry)) claim.identity = files_[claim.file] = opener.look(entry.path).identity;
        if (claim.identity.isFile()) continue;
        const FileDescriptor made = opener.createNew(entry.path);
        claim.identity = files_[claim.file] = FileIdentity::of(made.number());
    }
}

void FileOwnership::settle() {
    if (terms_.claims != nullptr && !news_.empty()) terms_.claims->settle(torrent_, news_);
    news_ = {};
}

}  // namespace skein
