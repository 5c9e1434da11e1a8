#pragma once

#include "Core/engine/PieceSet.h"
#include "Core/engine/TorrentStorage.h"
#include "Core/formats/TorrentMetaInfo.h"
#include "public/common/SHA1.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace skein {

namespace asio = boost::asio;

/// What a check found of a piece.
enum class PieceCondition : std::uint8_t {
    unchecked,
    good,
    bad,      ///< data is there, and it is wrong or cannot be read
    missing,  ///< a file is missing or too short, or nothing was ever written there
};

/// Checks the pieces on disk against their hashes, on several threads of the disk pool at once.
///
/// Each thread hashes as many pieces side by side as the processor does best. Pieces that lie wholly in holes of sparse
/// files are compared with the hash of zeros instead of being read.
/// Owner: PieceManager. One run at a time.
class PieceVerifier {
public:
    struct Checked {
        int piece;
        PieceCondition condition;
    };
    using OnChecked = std::function<void(std::span<const Checked>)>;

    /// `metaInfo` and `storage` outlive the verifier.
    PieceVerifier(const TorrentMetaInfo& metaInfo, TorrentStorage& storage, asio::any_io_executor disk,
                  unsigned workerCount);
    PieceVerifier(const PieceVerifier&) = delete;
    PieceVerifier& operator=(const PieceVerifier&) = delete;
    ~PieceVerifier();

    /// These pieces are not looked at. Before `run`.
    void skip(PieceSet pieces) { skipped_ = std::move(pieces); }
    /// Checks every other piece and reports them to `onChecked`, on the caller's executor, in no strict order. A
    /// cancelled caller waits no longer than some milliseconds' work of the disk pool takes.
    asio::awaitable<void> run(OnChecked onChecked);

private:
    struct Worker;
    struct ZeroHash {
        std::once_flag once;
        SHA1Digest digest{};
    };

    asio::awaitable<void> work(Worker& worker);
    void checkSome(Worker& worker);
    bool gather(Worker& worker, std::int64_t& budget);
    bool claim(Worker& worker);
    std::optional<PieceCondition> judgeUnread(Worker& worker, int piece);
    void hash(Worker& worker, std::int64_t& budget);
    void readParts(Worker& worker, std::size_t length);
    std::size_t batchLimit(std::int64_t pieceSize) const;
    const SHA1Digest& hashOfZeros(std::int64_t size);
    bool matches(const SHA1Digest& digest, int piece) const;

    const TorrentMetaInfo& metaInfo_;
    TorrentStorage& storage_;
    const asio::any_io_executor disk_;
    std::vector<std::unique_ptr<Worker>> workers_;
    PieceSet skipped_;
    OnChecked onChecked_;
    std::atomic<int> nextPiece_{0};
    ZeroHash zeros_;      // of a piece of the usual size
    ZeroHash lastZeros_;  // of the last piece
};

}  // namespace skein
