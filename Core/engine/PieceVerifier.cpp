#include "Core/engine/PieceVerifier.h"

#include "Core/engine/StorageError.h"
#include "public/common/RunOn.h"

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

/// Small enough to stay in the core's own cache between reading and hashing.
constexpr std::size_t readSize = std::size_t{256} << 10U;
/// What a worker reads before it comes back to report and to see whether it is to stop: some 5 ms' worth.
constexpr std::int64_t bytesPerVisit = std::int64_t{8} << 20U;
/// What looking for a hole counts as, so that a visit ends in time on a torrent that is all holes.
constexpr std::int64_t costOfHole = 4096;

}  // namespace

struct PieceVerifier::Worker {
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(readSize);
    SHA1Hasher hasher;
    TorrentStorage::PresenceNotes notes;
    int piece = 0;  // the claimed pieces are [piece, end)
    int end = 0;
    std::int64_t hashed = 0;  // bytes of `piece`, which may be larger than one visit
    std::vector<Checked> checked;
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
        worker->hashed = 0;
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
        if (worker.checked.empty() && worker.piece == worker.end) co_return;
        if (!worker.checked.empty()) onChecked_(worker.checked);
    }
}

void PieceVerifier::checkSome(Worker& worker) {
    worker.checked.clear();
    for (std::int64_t budget = bytesPerVisit; budget > 0;) {
        if (worker.piece == worker.end && !claim(worker)) return;
        if (skipped_.contains(worker.piece)) {
            ++worker.piece;
            continue;
        }
        const std::optional<PieceCondition> condition = checkOrGoOn(worker, budget);
        if (!condition) continue;
        worker.checked.push_back({worker.piece, *condition});
        ++worker.piece;
        worker.hashed = 0;
    }
}

/// Takes the next pieces, about a visit's worth of neighbours: a disk reads them faster than every other piece.
bool PieceVerifier::claim(Worker& worker) {
    const int pieceCount = metaInfo_.pieceCount();
    const auto wanted = static_cast<int>(std::clamp<std::int64_t>(bytesPerVisit / metaInfo_.pieceLength, 1, 4096));
    worker.piece = std::min(nextPiece_.fetch_add(wanted), pieceCount);
    worker.end = std::min(worker.piece + wanted, pieceCount);
    return worker.piece < worker.end;
}

/// Works on the worker's piece; nothing when the budget is used up before it is done.
std::optional<PieceCondition> PieceVerifier::checkOrGoOn(Worker& worker, std::int64_t& budget) {
    const std::int64_t size = metaInfo_.pieceSize(worker.piece);
    const std::int64_t start = static_cast<std::int64_t>(worker.piece) * metaInfo_.pieceLength;
    if (worker.hashed == 0) {
        budget -= costOfHole;
        switch (storage_.presenceOf(start, size, worker.notes)) {
            case TorrentStorage::Presence::absent: return PieceCondition::missing;
            case TorrentStorage::Presence::zeros:
                return matches(hashOfZeros(size), worker.piece) ? PieceCondition::good : PieceCondition::missing;
            case TorrentStorage::Presence::data: break;
        }
    }
    while (worker.hashed < size) {
        if (budget <= 0) return std::nullopt;
        const auto length = static_cast<std::size_t>(std::min<std::int64_t>(readSize, size - worker.hashed));
        try {
            const iovec into{worker.buffer.data(), length};
            storage_.read(start + worker.hashed, {&into, 1});
        } catch (const StorageException&) {
            worker.hasher.finish();
            return PieceCondition::bad;
        }
        worker.hasher.update({worker.buffer.data(), length});
        worker.hashed += static_cast<std::int64_t>(length);
        budget -= static_cast<std::int64_t>(length);
    }
    return matches(worker.hasher.finish(), worker.piece) ? PieceCondition::good : PieceCondition::bad;
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
