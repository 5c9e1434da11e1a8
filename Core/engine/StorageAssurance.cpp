#include "Core/engine/StorageAssurance.h"

#include "Core/engine/PieceVerifier.h"
#include "public/common/RunOn.h"
#include "public/common/ThreadPools.h"

#include <span>
#include <utility>

namespace skein {

asio::awaitable<void> StorageAssurance::sync() {
    for (bool isMore = true; isMore;) {
        auto visit = [this] { return storage_.syncSome(); };
        isMore = co_await runOn(environment_.disk, std::move(visit));
    }
}

asio::awaitable<PieceSet> StorageAssurance::wrongPieces(const PieceSet& completed) {
    PieceSet wrong(completed.size());
    auto take = [this] { return storage_.takeDoubted(); };
    const std::vector<std::size_t> doubted = co_await runOn(environment_.disk, std::move(take));
    if (doubted.empty()) co_return wrong;
    const PieceSet suspects = piecesOf(doubted, completed);
    environment_.log.warning("[PieceManager] Files changed by others or not synced: ", doubted.size(), ", hashing ",
                             suspects.count(), " pieces again");
    PieceVerifier::OnChecked report = [&](std::span<const PieceVerifier::Checked> checked) {
        for (const auto& [piece, condition] : checked)
            if (condition != PieceCondition::good) wrong.insert(piece);
    };
    PieceVerifier verifier(metaInfo_, storage_, environment_.disk, ThreadPools::threadsEach());
    verifier.skip(suspects.complement());
    try {
        co_await verifier.run(std::move(report));
    } catch (...) {
        storage_.doubt(doubted);
        throw;
    }
    co_return wrong;
}

PieceSet StorageAssurance::piecesOf(const std::vector<std::size_t>& files, const PieceSet& completed) const {
    PieceSet pieces(completed.size());
    for (const std::size_t index : files) {
        const TorrentLayout::File& file = storage_.layout().files()[index];
        const std::int64_t end = file.offset + file.size;
        for (std::int64_t piece = file.offset / metaInfo_.pieceLength; piece * metaInfo_.pieceLength < end; ++piece)
            if (completed.contains(static_cast<int>(piece))) pieces.insert(static_cast<int>(piece));
    }
    return pieces;
}

}  // namespace skein
