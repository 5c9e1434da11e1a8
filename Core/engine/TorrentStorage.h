#pragma once

#include "Core/engine/FileOpener.h"
#include "Core/engine/FileOwnership.h"
#include "Core/engine/FileWatch.h"
#include "Core/engine/OpenFiles.h"
#include "Core/engine/PieceSet.h"
#include "Core/engine/TorrentLayout.h"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace skein {

/// The files of one torrent as one stream of bytes.
///
/// A download never follows a symbolic link below the download folder (which may itself be one): a link would lead a
/// write out of it. It touches its own files only (FileOwnership), and gives one its size when the first piece is
/// written to it. Written data is left to the system's cache; `syncNext` puts it on the device. Owner: PieceManager.
/// Thread: any, several at once (but `survey` to `settle`); all calls block and belong on the disk pool.
class TorrentStorage {
public:
    /// What is known of a range without reading it.
    enum class Presence : std::uint8_t {
        data,    ///< all there; to be read
        zeros,   ///< all there, and nothing was ever written to it
        absent,  ///< a file is missing or too short
    };
    /// What `presenceOf` learned last; each thread that asks keeps its own.
    struct PresenceNotes {
        static constexpr std::size_t noFile = static_cast<std::size_t>(-1);
        std::size_t file = noFile;
        std::int64_t size = -1;  // of the file on disk, -1 when there is none
        bool isHole = false;     // whether [start, end) of it is a hole or data
        std::int64_t start = 0;
        std::int64_t end = 0;
    };

    struct Environment {
        std::filesystem::path folder;
        StorageMode mode = StorageMode::download;
        std::shared_ptr<OpenFiles> openFiles;
        FileCalls& calls;
        SHA1Digest torrent{};
        ClaimTerms claim;
    };

    TorrentStorage(TorrentLayout layout, Environment environment);
    TorrentStorage(const TorrentStorage&) = delete;
    TorrentStorage& operator=(const TorrentStorage&) = delete;
    ~TorrentStorage();

    const TorrentLayout& layout() const noexcept { return layout_; }

    // The start of a download, in this order; the first and the third for the files [first, first + count). What is in
    // the way fails it, untouched. Throw StorageException and DatabaseException.
    /// Looks at what stands at the torrent's paths.
    void survey(std::size_t first, std::size_t count);
    /// Takes what is this download's, given the pieces that are there.
    void take(const FoundPieces& found);
    /// Makes the folders and files that are missing.
    void makeMissing(std::size_t first, std::size_t count);
    void settle() { ownership_.settle(); }
    /// Writes the bytes of `from`, one after another, at `offset` of the torrent. Throws StorageException.
    void write(std::int64_t offset, std::span<const iovec> from);
    /// Fills `into`, one after another, from `offset` of the torrent on. Throws StorageException.
    void read(std::int64_t offset, std::span<const iovec> into);
    /// Has the system read this range ahead, for a reader who is about to read it from several places at once.
    void willRead(std::int64_t offset, std::int64_t length);
    Presence presenceOf(std::int64_t offset, std::int64_t length, PresenceNotes& notes);

    // Whether what is there is still what was written. `first` and `count` as above.
    /// Notes what the files look like, before their pieces are read to be hashed.
    void beginCheck(std::size_t first, std::size_t count);
    /// Looks for files that somebody else changed since this download last touched them.
    void lookForChanges(std::size_t first, std::size_t count);
    /// The files of which nobody knows what they hold: changed by somebody else, or not synced. From here on they count
    /// as checked: the caller hashes every piece of them again, from the device, or puts them in doubt again.
    std::vector<std::size_t> takeDoubted();
    void doubt(const std::vector<std::size_t>& files);
    /// How this download left file `index`; no file while it is in doubt.
    FileStamp vouchedFor(std::size_t index) const;
    /// Files that the next sync is to include although this run did not write them, by place in the torrent.
    void addUnsynced(const std::vector<bool>& files);
    /// Puts on the device what was written to some more files; false when all is there. A file that cannot be synced is
    /// in doubt, and left for the next time. Throws StorageException.
    bool syncSome();
    /// Closes the files; the next use opens them again.
    void close();

private:
    FileOpener newOpener();
    OpenFiles::File file(std::size_t index, OpenFiles::Access access, FileOpener& opener);
    void giveSize(std::size_t index, const FileDescriptor& file, FileOpener& opener);
    void lookAt(const TorrentLayout::Slice& slice, PresenceNotes& notes);
    FileStamp stampOf(std::size_t index) const;
    FileStamp stampOf(const FileDescriptor& file) const;

    const TorrentLayout layout_;
    const std::filesystem::path folder_;
    const StorageMode mode_;
    const std::shared_ptr<OpenFiles> openFiles_;
    const std::uint64_t owner_;
    FileCalls& calls_;
    FileOwnership ownership_;
    // One write at a time: the system lets in only one a file, and those who wait for it there keep a core busy.
    mutable std::mutex writeTurn_;
    std::set<std::size_t> unsynced_;  // files written to; guarded by writeTurn_
    std::vector<bool> hasSize_;       // files whose size was seen to; guarded by writeTurn_
    FileWatch watch_;                 // guarded by writeTurn_
};

}  // namespace skein
