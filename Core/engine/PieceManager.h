#pragma once

#include "Core/engine/ChunkPool.h"
#include "Core/engine/PieceInFlight.h"
#include "Core/engine/PiecePicker.h"
#include "Core/engine/PieceSet.h"
#include "Core/engine/PieceVerifier.h"
#include "Core/engine/StorageError.h"
#include "Core/engine/TorrentStorage.h"
#include "Core/engine/WriteTrouble.h"
#include "Core/wire/BlockRequest.h"
#include "public/common/FileLogger.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/steady_timer.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace skein {

/// What became of a block.
enum class ReceiveBlockResult {
    accepted,   ///< kept; its piece is not whole yet
    completed,  ///< its piece is now whole, verified and written
    failed,     ///< its piece was whole, but is wrong or could not be written; it is missing again
    ignored,    ///< not expected
};

/// The pieces of one torrent: which are there, which to fetch next, those being received, and the files.
///
/// Owner: the session, whose strand it shares and on which everything is called; the session ends its tasks before it
/// lets go. File calls and hashing run on the disk pool, one visit a piece. Nothing is synced to the device by itself
/// (see `secure`).
/// Errors: `setup` throws StorageException; afterwards failures are results, log lines and `storageProblem`.
class PieceManager {
public:
    static constexpr int blockSize = 16384;
    enum class State : std::uint8_t { missing, downloading, completed };
    using Mode = StorageMode;
    enum class StoreResult {
        accepted,
        ignored,
        whole,  ///< the piece now waits for `completePiece` (or `resetPiece`)
    };
    struct Environment {
        Strand strand;
        asio::any_io_executor disk;
        Clock& clock;
        FileLogger& log;
        std::shared_ptr<OpenFiles> openFiles = OpenFiles::shared();
        FileCalls& calls = FileCalls::real();
        ClaimTerms claim = {};
    };
    /// The readers wait while so many bytes are whole but not yet written: eight pieces keep the disk threads busy,
    /// within these bounds; two are let in whatever their size.
    static constexpr std::int64_t leastUnwrittenLimit = std::int64_t{16} << 20U;
    static constexpr std::int64_t mostUnwrittenLimit = std::int64_t{32} << 20U;
    /// What pieces that rest may take once they are whole. One may rest whatever its size.
    static constexpr std::int64_t mostRestingBytes = std::int64_t{64} << 20U;

    PieceManager(std::shared_ptr<const TorrentMetaInfo> metaInfo, std::filesystem::path savePath,
                 Environment environment, Mode mode);
    PieceManager(const PieceManager&) = delete;
    PieceManager& operator=(const PieceManager&) = delete;
    ~PieceManager();

    /// Checks the torrent and verifies what is there; a download then takes the files that are its own and makes the
    /// missing ones, or fails when somebody else's stand in the way. With the encoded record of an earlier run, what it
    /// verified is taken as good where the files are as they were then.
    asio::awaitable<void> setup(Bytes resumeRecord = {});
    /// An encoded record that vouches for `verified`: what `secure` returned.
    asio::awaitable<Bytes> resumeRecord(PieceSet verified);
    /// Pieces that are missing and turn out good become completed; completed ones stay so. May be cancelled; what was
    /// verified by then stays.
    asio::awaitable<void> verifyExistingPieces();
    /// Told while a verification runs, about ten times a second or each further hundredth.
    void setVerifyProgressCallback(std::function<void(int checkedPieces, int totalPieces)> callback);
    /// What the last verification found, by piece.
    const std::vector<PieceCondition>& verifiedConditions() const noexcept { return conditions_; }

    void updateAvailability(ByteView bitfield);
    void markPeerHasPiece(int piece);
    /// The missing piece to fetch from a peer that has `peerHas`: one that rests first. None, too, while writes fail.
    std::optional<int> nextPiece(const PieceSet& peerHas);
    /// Begins a missing piece, or goes on with one that rests; the blocks that are still to come, in order. Nothing for
    /// any other piece.
    std::vector<BlockRequest> blocksForPiece(int piece);
    /// Nobody fetches the piece any more. The blocks that came stay for whoever takes it next; a piece without one, and
    /// one for which there is no more room, is given up.
    void restPiece(int piece);

    asio::awaitable<ReceiveBlockResult> receiveBlock(int pieceIndex, int begin, ByteView data);
    /// The first half of `receiveBlock`: copies the block.
    StoreResult storeBlock(int pieceIndex, int begin, ByteView data);
    /// The second half, after `whole`: hashes and writes the piece on the disk pool. Once begun it runs to its end,
    /// whether or not the caller is cancelled.
    asio::awaitable<ReceiveBlockResult> completePiece(int pieceIndex);
    /// Gives up a downloading or resting piece with all that came of it, unless it is being hashed and written.
    void resetPiece(int piece);

    Bytes bitfield() const;
    /// A part of a completed piece; nothing when it is not completed, out of range or cannot be read.
    asio::awaitable<std::optional<Bytes>> readBlock(int pieceIndex, int begin, int length);
    /// The same for many, in one visit to the disk pool; neighbours are read together. `reads` stays in place
    /// meanwhile.
    asio::awaitable<void> readBlocks(std::vector<BlockRead>& reads);
    /// Which files `secure` looks at for changes that others made.
    enum class Scrutiny : std::uint8_t {
        writtenFiles,  ///< those that this download wrote to since
        allFiles,
    };
    /// Puts on the device what was written since the last call, file by file, and may take as long as the device needs.
    /// What could not be synced, and what others changed, is read back and hashed: pieces that turn out wrong are
    /// missing again. Returns the pieces that are on the device. Throws StorageException when a file cannot be synced
    /// (`storageProblem` says so, too). One call at a time.
    asio::awaitable<PieceSet> secure(Scrutiny scrutiny);
    /// Closes the files and gives free memory back. What comes later opens them again.
    asio::awaitable<void> cleanup();

    /// 1 for a torrent without pieces.
    double progress() const noexcept;
    bool isComplete() const noexcept { return completed_.count() == completed_.size(); }
    std::vector<bool> completionBitmap() const;
    int completedPieces() const noexcept { return completed_.count(); }
    /// Payload received and not rolled back, and verified payload. A piece that is given up counts down in full,
    /// whatever part of it had come, so this may run low; never below 0.
    std::int64_t downloadedBytes() const noexcept;
    /// A piece that rests is `missing`.
    State pieceState(int piece) const noexcept;
    bool isResting(int piece) const noexcept { return resting_.contains(piece); }
    int availabilityOf(int piece) const noexcept { return picker_.availabilityOf(piece); }
    const TorrentMetaInfo& metaInfo() const noexcept { return *metaInfo_; }
    const PieceSet& completedSet() const noexcept { return completed_; }
    const PieceSet& missingSet() const noexcept { return picker_.candidates(); }
    std::int64_t completedBytes() const noexcept { return completedBytes_; }
    /// What the pieces in flight, or waiting to be hashed and written, may take once they are whole.
    std::int64_t bufferedBytes() const noexcept { return bufferedBytes_; }
    /// Of pieces that are whole but not yet written.
    std::int64_t unwrittenBytes() const noexcept { return unwrittenBytes_; }
    /// Returns when there is room for more unwritten bytes: readers wait here, so that a slow disk slows the peers.
    asio::awaitable<void> roomToReceive();

    /// Told once when writes begin to fail (the error's text) and once when they work again (nothing).
    void setStorageProblemCallback(std::function<void(const std::optional<std::string>&)> callback);
    /// Told when completed pieces turned out to be missing again.
    void setPiecesLostCallback(std::function<void()> callback) { onPiecesLost_ = std::move(callback); }
    const std::optional<std::string>& storageProblem() const noexcept { return trouble_.text(); }
    /// The errno behind it; 0 when it was none.
    int storageErrno() const noexcept { return storageErrno_; }

private:
    struct Outcome;

    bool canDownload() const noexcept { return mode_ == Mode::download && !refusal_; }
    std::int64_t offsetOf(int piece) const noexcept;
    Outcome hashAndWrite(int piece, const PieceInFlight& data);
    ReceiveBlockResult finish(int piece, const Outcome& outcome);
    void markCompleted(int piece);
    void endRest(int piece, PieceInFlight& rest);
    /// Drops a piece's buffer.
    void dropInFlight(int piece);
    bool isReadable(const BlockRequest& block) const noexcept;
    void readNow(std::vector<BlockRead*>& reads);
    /// Calls `visit(first, count)` on the disk pool for one batch of the torrent's files after the other.
    asio::awaitable<void> visitFiles(std::function<void(std::size_t first, std::size_t count)> visit);
    asio::awaitable<void> takeFiles();
    bool isTelling(int piece) const;
    PieceSet trustedPieces(const Bytes& resumeRecord);
    template <class Visit>
    void forEachFileOf(int piece, Visit visit) const;
    asio::awaitable<void> verify(PieceSet trusted);
    void onChecked(std::span<const PieceVerifier::Checked> checked);
    void lose(const PieceSet& wrong);
    /// `piece` is below 0 when it was none.
    void onStorageFailure(int piece, int code, const std::string& text, std::string_view what);
    void onStorageSuccess();

    const std::shared_ptr<const TorrentMetaInfo> metaInfo_;
    const Environment environment_;
    const Mode mode_;
    std::optional<StorageException> refusal_;  // why the torrent cannot be stored; thrown by setup()
    std::unique_ptr<TorrentStorage> storage_;

    PiecePicker picker_;
    PieceSet completed_;
    ChunkPool chunks_;
    std::unordered_map<int, PieceInFlight> inFlight_;
    PieceSet resting_;  // of those in flight, which nobody fetches; they are candidates of the picker, too
    WriteTrouble trouble_;
    int storageErrno_ = 0;
    asio::steady_timer room_;  // cancelled to wake those who wait for room

    std::int64_t downloadedBytes_ = 0;
    std::int64_t completedBytes_ = 0;
    std::int64_t bufferedBytes_ = 0;
    std::int64_t unwrittenBytes_ = 0;
    std::int64_t restingBytes_ = 0;

    std::vector<PieceCondition> conditions_;
    int checkedPieces_ = 0;
    int reportedPieces_ = 0;
    Clock::TimePoint reportedAt_{};
    std::function<void(int, int)> onVerifyProgress_;
    std::function<void(const std::optional<std::string>&)> onStorageProblem_;
    std::function<void()> onPiecesLost_;
};

}  // namespace skein
