#include "Core/engine/PieceVerifier.h"

#include "Core/engine/StorageError.h"
#include "public/common/RunOn.h"
#include "public/common/SHA1Lanes.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <algorithm>
#include <array>
#include <exception>
#include <utility>

namespace skein {

namespace {

/// Of all pieces of a batch together: small enough to stay in the core's own cache between reading and hashing.
constexpr std::size_t readSize = std::size_t{256} << 10U;
/// What a worker reads before it comes back to report and to see whether it is to stop: some 5 ms' worth.
constexpr std::int64_t bytesPerVisit = std::int64_t{8} << 20U;
/// What looking for a hole counts as, so that a visit ends in time on a torrent that is all holes.
constexpr std::int64_t costOfHole = 4096;
/// A batch is read from as many places at once, and the system is told to have it all at hand.
constexpr std::int64_t mostBytesPerBatch = std::int64_t{256} << 20U;

}  // namespace

struct PieceVerifier::Worker {
    struct Batched {
        int piece;
        bool isUnreadable = false;
    };

    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(readSize);
    TorrentStorage::PresenceNotes notes;
    int piece = 0;  // the claimed pieces are [piece, end)
    int end = 0;
    std::vector<Batched> batch;      // pieces of one size, hashed side by side
    std::optional<SHA1Lanes> lanes;  // while the batch is hashed
    std::int64_t hashed = 0;         // bytes of each piece, which may be larger than one visit
    std::vector<Checked> checked;

    bool isIdle() const { return piece == end && batch.empty(); }
};

PieceVerifier::PieceVerifier(const TorrentMetaInfo& metaInfo, TorrentStorage& storage, asio::any_io_executor disk,
                             unsigned workerCount)
    : metaInfo_(metaInfo), storage_(storage), disk_(std::move(disk)) {
    const auto useful = static_cast<unsigned>(std::max(metaInfo.pieceCount(), 1));
    for (unsigned i = 0; i < std::clamp(workerCount, 1U, useful); ++i) workers_.push_back(std::make_unique<Worker>());
}

PieceVerifier::~PieceVerifier() = default;

asio::awaitable<void> PieceVerifier::run(OnChecked onChecked) {
    onChecked_ = std::move(onChecked);
    nextPiece_ = 0;
    const asio::any_io_executor executor = co_await asio::this_coro::executor;
    using Task = decltype(asio::co_spawn(executor, work(*workers_.front()), asio::deferred));
    std::vector<Task> tasks;
    for (const auto& worker : workers_) {
        worker->piece = worker->end = 0;
        worker->batch.clear();
        worker->lanes.reset();
        tasks.push_back(asio::co_spawn(executor, work(*worker), asio::deferred));
    }
    auto group = asio::experimental::make_parallel_group(std::move(tasks));
    const auto [order, failures] =
        co_await group.async_wait(asio::experimental::wait_for_one_error(), asio::use_awaitable);
    for (const std::size_t index : order)
        if (failures[index]) std::rethrow_exception(failures[index]);
}

asio::awaitable<void> PieceVerifier::work(Worker& worker) {
    for (;;) {
        auto visit = [this, &worker] { checkSome(worker); };
        co_await runOn(disk_, std::move(visit));
        if (worker.checked.empty() && worker.isIdle()) co_return;
        if (!worker.checked.empty()) onChecked_(worker.checked);
    }
}

void PieceVerifier::checkSome(Worker& worker) {
    worker.checked.clear();
    for (std::int64_t budget = bytesPerVisit; budget > 0;) {
        if (!worker.lanes && gather(worker, budget)) {
            worker.lanes.emplace(worker.batch.size());
            worker.hashed = 0;
        }
        if (worker.lanes) hash(worker, budget);
        if (worker.isIdle() && !claim(worker)) return;
    }
}

/// Goes on to fill the batch from what is claimed; true when it is to be hashed.
bool PieceVerifier::gather(Worker& worker, std::int64_t& budget) {
    for (; worker.piece < worker.end; ++worker.piece) {
        if (budget <= 0) return false;
        if (skipped_.contains(worker.piece)) continue;
        const std::int64_t size = metaInfo_.pieceSize(worker.piece);
        if (worker.batch.size() >= batchLimit(size)) return true;
        budget -= costOfHole;
        if (const std::optional<PieceCondition> condition = judgeUnread(worker, worker.piece)) {
            worker.checked.push_back({worker.piece, *condition});
        } else {
            worker.batch.push_back({worker.piece});
        }
    }
    return !worker.batch.empty();
}

/// How many pieces of this size go together: only whole blocks do, and the last piece may be a size of its own.
std::size_t PieceVerifier::batchLimit(std::int64_t pieceSize) const {
    if (pieceSize < metaInfo_.pieceLength || pieceSize % std::int64_t{SHA1Lanes::blockSize} != 0) return 1;
    const auto bySize = static_cast<std::size_t>(std::max<std::int64_t>(mostBytesPerBatch / pieceSize, 1));
    return std::min(SHA1Lanes::bestCount(), bySize);
}

/// Takes the next pieces, about a visit's worth of neighbours: a disk reads them faster than every other piece.
bool PieceVerifier::claim(Worker& worker) {
    const int pieceCount = metaInfo_.pieceCount();
    const auto visit = static_cast<int>(std::clamp<std::int64_t>(bytesPerVisit / metaInfo_.pieceLength, 1, 4096));
    const int share = std::max(pieceCount / static_cast<int>(workers_.size()), 1);
    const int wanted = std::min(std::max(visit, static_cast<int>(batchLimit(metaInfo_.pieceLength))), share);
    worker.piece = std::min(nextPiece_.fetch_add(wanted), pieceCount);
    worker.end = std::min(worker.piece + wanted, pieceCount);
    return worker.piece < worker.end;
}

/// What is known of a piece without reading it, if that is enough.
std::optional<PieceCondition> PieceVerifier::judgeUnread(Worker& worker, int piece) {
    const std::int64_t size = metaInfo_.pieceSize(piece);
    const std::int64_t start = static_cast<std::int64_t>(piece) * metaInfo_.pieceLength;
    switch (storage_.presenceOf(start, size, worker.notes)) {
        case TorrentStorage::Presence::absent: return PieceCondition::missing;
        case TorrentStorage::Presence::zeros:
            return matches(hashOfZeros(size), piece) ? PieceCondition::good : PieceCondition::missing;
        case TorrentStorage::Presence::data: break;
    }
    if (batchLimit(size) > 1) storage_.willRead(start, size);
    return std::nullopt;
}

/// Works on the batch until it is done or the budget is used up.
void PieceVerifier::hash(Worker& worker, std::int64_t& budget) {
    const auto count = worker.batch.size();
    const std::int64_t size = metaInfo_.pieceSize(worker.batch.front().piece);
    constexpr std::size_t block = SHA1Lanes::blockSize;
    const std::size_t part = readSize / count / block * block;
    while (worker.hashed < size) {
        if (budget <= 0) return;
        const auto length = static_cast<std::size_t>(std::min(static_cast<std::int64_t>(part), size - worker.hashed));
        readParts(worker, length);
        worker.hashed += static_cast<std::int64_t>(length);
        budget -= static_cast<std::int64_t>(length * count);
    }
    const std::vector<SHA1Digest> digests = worker.lanes->finish();
    for (std::size_t i = 0; i < count; ++i) {
        const auto& [piece, isUnreadable] = worker.batch[i];
        const bool isGood = !isUnreadable && matches(digests[i], piece);
        worker.checked.push_back({piece, isGood ? PieceCondition::good : PieceCondition::bad});
    }
    worker.batch.clear();
    worker.lanes.reset();
}

/// Reads and hashes the next `length` bytes of each piece of the batch.
void PieceVerifier::readParts(Worker& worker, std::size_t length) {
    std::array<const std::uint8_t*, SHA1Lanes::maxMessages> parts{};
    for (std::size_t i = 0; i < worker.batch.size(); ++i) {
        Worker::Batched& batched = worker.batch[i];
        const iovec into{&worker.buffer[i * length], length};
        parts[i] = &worker.buffer[i * length];
        if (batched.isUnreadable) continue;
        const std::int64_t start = static_cast<std::int64_t>(batched.piece) * metaInfo_.pieceLength;
        try {
            storage_.read(start + worker.hashed, {&into, 1});
        } catch (const StorageException&) {
            batched.isUnreadable = true;
        }
    }
    worker.lanes->update({parts.data(), worker.batch.size()}, length);
}

const SHA1Digest& PieceVerifier::hashOfZeros(std::int64_t size) {
    ZeroHash& zeros = size == metaInfo_.pieceLength ? zeros_ : lastZeros_;
    std::call_once(zeros.once, [&] {
        const std::vector<std::uint8_t> block(static_cast<std::size_t>(std::min<std::int64_t>(size, readSize)));
        SHA1Hasher hasher;
        for (std::int64_t left = size; left > 0; left -= static_cast<std::int64_t>(block.size()))
            hasher.update({block.data(), static_cast<std::size_t>(std::min<std::int64_t>(left, readSize))});
        zeros.digest = hasher.finish();
    });
    return zeros.digest;
}

bool PieceVerifier::matches(const SHA1Digest& digest, int piece) const {
    return std::ranges::equal(digest, metaInfo_.pieceHash(piece));
}

}  // namespace skein
