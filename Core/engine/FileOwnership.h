#pragma once

#include "Core/engine/FileClaims.h"
#include "Core/engine/FileOpener.h"
#include "Core/engine/PieceSet.h"
#include "Core/engine/TorrentLayout.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <vector>

namespace skein {

/// How a download takes files.
struct ClaimTerms {
    FileClaims* claims = nullptr;  ///< none: nothing is remembered of earlier starts
    bool isListed = false;         ///< a task of the saved list
    bool movesAside = false;       ///< what stands in the way is renamed to NAME.before instead of refused
};

/// Which of the pieces found on disk are there, and what they say of the files that they were found in.
struct FoundPieces {
    const PieceSet& good;
    std::int64_t lengthBytes = 0;  ///< of each but the last
    /// Whether it is no accident, and nobody's guess, that this piece is there.
    std::function<bool(int piece)> isTelling;
};

/// Which of the files at a torrent's paths are this download's. It is settled before any of them is touched.
///
/// The download's are those that it began or adopted before, those in which one of its pieces matched, and those to
/// which nothing was ever written. A match counts where the piece tells something, or the whole file matched: whoever
/// makes a torrent of tiny pieces, or of zeros, would else have any file taken and written over. Any other one is
/// foreign, and so is one longer than the torrent says, and one that another task owns: then the download fails, and
/// the file stays as it is. Owner: TorrentStorage. Thread: the disk pool, one call at a time (`isOurs`: any). Throws
/// StorageException and DatabaseException.
class FileOwnership {
public:
    /// `layout` and `folder` outlive this.
    FileOwnership(const TorrentLayout& layout, const std::filesystem::path& folder, FileCalls& calls,
                  const SHA1Digest& torrent, ClaimTerms terms);

    // In this order. The first and the third go through the files [first, first + count), so that one call does not
    // last for minutes.
    /// Looks at what is there, and changes nothing (but for a longer file that is to be moved aside).
    void survey(FileOpener& opener, std::size_t first, std::size_t count);
    /// Decides, now that it is known which pieces are `good`, and puts down what is taken.
    void take(FileOpener& opener, const FoundPieces& found);
    /// Makes those that are missing, empty.
    void makeMissing(FileOpener& opener, std::size_t first, std::size_t count);
    /// Puts down which files those became.
    void settle();

    /// Whether `identity` is what this download has at the path of `file`.
    bool isOurs(std::size_t file, const FileIdentity& identity) const { return files_[file] == identity; }
    std::string pathOf(std::size_t file) const;

private:
    bool isKnown(std::size_t file) const { return files_[file] == known_[file]; }
    std::vector<bool> matchedFiles(const FoundPieces& found) const;
    bool mayTake(FileOpener& opener, std::size_t file, bool isMatched);
    bool isAnothers(const FileIdentity& identity) const;
    bool holdsNothing(FileOpener& opener, std::size_t file) const;
    void clear(FileOpener& opener, std::size_t file);

    const TorrentLayout& layout_;
    const std::filesystem::path& folder_;
    FileCalls& calls_;
    const SHA1Digest torrent_;
    const ClaimTerms terms_;
    std::vector<FileIdentity> files_;  // what is at each path
    std::vector<FileIdentity> known_;  // what earlier starts put down; while it is settled
    std::vector<FileClaims::Claim> news_;
};

}  // namespace skein
