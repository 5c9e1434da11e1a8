#include "Core/engine/PieceManager.h"

#include "Core/engine/ResumeRecord.h"
#include "Core/engine/StorageAssurance.h"
#include "public/common/RunOn.h"
#include "public/common/SHA1.h"
#include "public/common/ThreadPools.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <algorithm>
#include <exception>
#include <utility>

namespace skein {

namespace {

/// A block's memory comes in such chunks: few enough for one write call, small enough that little is unused.
constexpr std::int64_t largestChunk = std::int64_t{256} << 10U;
/// Files looked at or made in one visit to the disk pool, between which the work can be cancelled.
constexpr std::size_t filesPerVisit = 256;
constexpr std::chrono::milliseconds reportInterval{100};

std::size_t chunkSizeFor(std::int64_t pieceLength) {
    constexpr std::int64_t block = PieceManager::blockSize;
    const std::int64_t useful = std::clamp<std::int64_t>(pieceLength, 1, largestChunk);
    return static_cast<std::size_t>((useful + block - 1) / block * block);
}

}  // namespace

/// What the disk pool made of a whole piece.
struct PieceManager::Outcome {
    bool isVerified = false;
    std::optional<std::string> writeError;
    int writeErrno = 0;
};

PieceManager::PieceManager(std::shared_ptr<const TorrentMetaInfo> metaInfo, std::filesystem::path savePath,
                           Environment environment, Mode mode)
    : metaInfo_(std::move(metaInfo)),
      environment_(std::move(environment)),
      mode_(mode),
      picker_(metaInfo_->pieceCount()),
      completed_(metaInfo_->pieceCount()),
      chunks_(chunkSizeFor(metaInfo_->pieceLength)),
      resting_(metaInfo_->pieceCount()),
      room_(environment_.strand, asio::steady_timer::time_point::max()),
      conditions_(static_cast<std::size_t>(metaInfo_->pieceCount()), PieceCondition::unchecked) {
    try {
        TorrentStorage::Environment storage{std::move(savePath),    mode,
                                            environment_.openFiles, environment_.calls,
                                            metaInfo_->infoHash,    environment_.claim};
        storage_ = std::make_unique<TorrentStorage>(TorrentLayout(*metaInfo_), std::move(storage));
    } catch (const StorageException& refusal) {
        refusal_.emplace(refusal);
    }
}

PieceManager::~PieceManager() = default;

asio::awaitable<void> PieceManager::setup(Bytes resumeRecord) {
    if (refusal_) throw StorageException(*refusal_);
    auto survey = [this](std::size_t first, std::size_t count) { storage_->survey(first, count); };
    auto beginCheck = [this](std::size_t first, std::size_t count) { storage_->beginCheck(first, count); };
    if (mode_ == Mode::download) {
        co_await visitFiles(std::move(survey));
        co_await visitFiles(std::move(beginCheck));
    }
    PieceSet trusted(metaInfo_->pieceCount());
    if (!resumeRecord.empty()) {
        auto compare = [&] { return trustedPieces(resumeRecord); };
        trusted = co_await runOn(environment_.disk, std::move(compare));
    }
    co_await verify(trusted);
    if (mode_ != Mode::download) co_return;
    co_await takeFiles();
    // What an earlier run wrote and did not live to sync may still be in the system's cache alone.
    std::vector<bool> isFound(storage_->layout().files().size());
    completed_.forEach([&](int piece) {
        if (!trusted.contains(piece)) forEachFileOf(piece, [&](std::size_t file) { isFound[file] = true; });
    });
    storage_->addUnsynced(isFound);
}

asio::awaitable<void> PieceManager::takeFiles() {
    auto take = [this] {
        const FoundPieces found{completed_, metaInfo_->pieceLength, [this](int piece) { return isTelling(piece); }};
        storage_->take(found);
    };
    co_await runOn(environment_.disk, std::move(take));
    auto makeMissing = [this](std::size_t first, std::size_t count) { storage_->makeMissing(first, count); };
    co_await visitFiles(std::move(makeMissing));
    auto settle = [this] { storage_->settle(); };
    co_await runOn(environment_.disk, std::move(settle));
}

/// Runs on the disk pool. A few bytes may be there by chance; zeros are in many files, and in any that has room for
/// more.
bool PieceManager::isTelling(int piece) const {
    const std::int64_t size = metaInfo_->pieceSize(piece);
    if (size < blockSize) return false;
    SHA1Hasher hasher;
    const Bytes zeros(static_cast<std::size_t>(std::min(size, largestChunk)));
    for (std::int64_t left = size; left > 0; left -= std::ssize(zeros))
        hasher.update(ByteView(zeros).first(static_cast<std::size_t>(std::min(left, std::int64_t{std::ssize(zeros)}))));
    return !std::ranges::equal(hasher.finish(), metaInfo_->pieceHash(piece));
}

asio::awaitable<void> PieceManager::visitFiles(std::function<void(std::size_t, std::size_t)> visit) {
    const std::size_t fileCount = storage_->layout().files().size();
    for (std::size_t first = 0; first == 0 || first < fileCount; first += filesPerVisit) {
        auto batch = [&visit, first] { visit(first, filesPerVisit); };
        co_await runOn(environment_.disk, std::move(batch));
    }
}

template <class Visit>
void PieceManager::forEachFileOf(int piece, Visit visit) const {
    storage_->layout().forEachSlice(offsetOf(piece), metaInfo_->pieceSize(piece),
                                    [&](const TorrentLayout::Slice& slice) { visit(slice.file); });
}

/// Runs on the disk pool. A piece is trusted when every file that it touches is as it was.
PieceSet PieceManager::trustedPieces(const Bytes& resumeRecord) {
    PieceSet trusted(metaInfo_->pieceCount());
    const auto& files = storage_->layout().files();
    const auto record = ResumeRecord::decode(resumeRecord, metaInfo_->pieceCount(), files.size());
    if (!record) return trusted;
    std::vector<bool> isUnchanged(files.size());
    for (std::size_t file = 0; file < files.size(); ++file)
        isUnchanged[file] =
            TorrentLayout::isPadding(files[file]) ||
            (record->files[file].size == files[file].size && storage_->vouchedFor(file) == record->files[file]);
    record->verified.forEach([&](int piece) {
        bool isTrusted = true;
        forEachFileOf(piece, [&](std::size_t file) { isTrusted = isTrusted && isUnchanged[file]; });
        if (isTrusted) trusted.insert(piece);
    });
    return trusted;
}

asio::awaitable<Bytes> PieceManager::resumeRecord(PieceSet verified) {
    if (refusal_) co_return Bytes();
    ResumeRecord record;
    record.verified = std::move(verified);
    auto stamp = [&] {
        for (std::size_t file = 0; file < storage_->layout().files().size(); ++file)
            record.files.push_back(storage_->vouchedFor(file));
        return record.encode();
    };
    co_return co_await runOn(environment_.disk, std::move(stamp));
}

asio::awaitable<void> PieceManager::verifyExistingPieces() { return verify(PieceSet(metaInfo_->pieceCount())); }

asio::awaitable<void> PieceManager::verify(PieceSet trusted) {
    if (refusal_) co_return;
    environment_.log.info("verifyExistingPieces start, pieces=", metaInfo_->pieceCount());
    std::ranges::fill(conditions_, PieceCondition::unchecked);
    checkedPieces_ = 0;
    reportedPieces_ = 0;
    reportedAt_ = environment_.clock.now();
    PieceVerifier verifier(*metaInfo_, *storage_, environment_.disk, ThreadPools::threadsEach());
    PieceVerifier::OnChecked report = [this](std::span<const PieceVerifier::Checked> checked) { onChecked(checked); };
    std::vector<PieceVerifier::Checked> unchanged;
    trusted.forEach([&](int piece) { unchanged.push_back({piece, PieceCondition::good}); });
    if (!unchanged.empty()) onChecked(unchanged);
    verifier.skip(std::move(trusted));
    co_await verifier.run(std::move(report));
    environment_.log.info("verifyExistingPieces done, completed=", completedPieces());
}

void PieceManager::onChecked(std::span<const PieceVerifier::Checked> checked) {
    for (const auto& [piece, condition] : checked) {
        conditions_[static_cast<std::size_t>(piece)] = condition;
        if (condition != PieceCondition::good || pieceState(piece) != State::missing) continue;
        if (inFlight_.contains(piece)) resetPiece(piece);  // what rests of it is on the disk by now
        picker_.removeCandidate(piece);
        downloadedBytes_ += metaInfo_->pieceSize(piece);
        markCompleted(piece);
    }
    checkedPieces_ += static_cast<int>(checked.size());
    const int total = metaInfo_->pieceCount();
    const Clock::TimePoint now = environment_.clock.now();
    if (checkedPieces_ < total && checkedPieces_ - reportedPieces_ < std::max(total / 100, 1) &&
        now - reportedAt_ < reportInterval)
        return;
    reportedPieces_ = checkedPieces_;
    reportedAt_ = now;
    if (onVerifyProgress_) onVerifyProgress_(checkedPieces_, total);
}

void PieceManager::setVerifyProgressCallback(std::function<void(int, int)> callback) {
    onVerifyProgress_ = std::move(callback);
}

void PieceManager::updateAvailability(ByteView bitfield) {
    picker_.countAll(PieceSet::fromBitfield(bitfield, metaInfo_->pieceCount()));
}

void PieceManager::markPeerHasPiece(int piece) { picker_.count(piece); }

std::optional<int> PieceManager::nextPiece(const PieceSet& peerHas) {
    if (!canDownload() || !trouble_.mayRequest(environment_.clock.now())) return std::nullopt;
    if (const auto piece = firstCommon(resting_, peerHas)) return piece;
    return picker_.next(peerHas);
}

std::vector<BlockRequest> PieceManager::blocksForPiece(int piece) {
    if (!canDownload() || !picker_.candidates().contains(piece)) return {};
    const auto size = static_cast<int>(metaInfo_->pieceSize(piece));
    const auto [found, isNew] = inFlight_.try_emplace(piece, chunks_, size);
    if (isNew) bufferedBytes_ += size;
    endRest(piece, found->second);
    picker_.removeCandidate(piece);
    trouble_.onRequested(piece);
    std::vector<BlockRequest> blocks;
    blocks.reserve(static_cast<std::size_t>((size + blockSize - 1) / blockSize));
    for (int begin = 0; begin < size; begin += blockSize)
        if (found->second.expects(begin)) blocks.push_back({piece, begin, std::min(blockSize, size - begin)});
    return blocks;
}

void PieceManager::restPiece(int piece) {
    const auto found = inFlight_.find(piece);
    if (found == inFlight_.end() || found->second.isWhole() || found->second.isResting) return;
    PieceInFlight& rest = found->second;
    if (!rest.hasBegun() || (restingBytes_ > 0 && restingBytes_ + rest.size() > mostRestingBytes))
        return resetPiece(piece);
    rest.isResting = true;
    resting_.insert(piece);
    restingBytes_ += rest.size();
    picker_.addCandidate(piece);
    trouble_.onGivenUp(piece);
}

void PieceManager::endRest(int piece, PieceInFlight& rest) {
    if (!std::exchange(rest.isResting, false)) return;
    resting_.erase(piece);
    restingBytes_ -= rest.size();
}

asio::awaitable<ReceiveBlockResult> PieceManager::receiveBlock(int pieceIndex, int begin, ByteView data) {
    switch (storeBlock(pieceIndex, begin, data)) {
        case StoreResult::accepted: co_return ReceiveBlockResult::accepted;
        case StoreResult::ignored: co_return ReceiveBlockResult::ignored;
        case StoreResult::whole: break;
    }
    co_return co_await completePiece(pieceIndex);
}

PieceManager::StoreResult PieceManager::storeBlock(int pieceIndex, int begin, ByteView data) {
    const auto found = inFlight_.find(pieceIndex);
    if (found == inFlight_.end() || found->second.isResting || !found->second.expects(begin))
        return StoreResult::ignored;
    PieceInFlight& piece = found->second;
    piece.store(begin, data);
    downloadedBytes_ += static_cast<std::int64_t>(data.size());
    if (!piece.isWhole()) return StoreResult::accepted;
    unwrittenBytes_ += piece.size();
    return StoreResult::whole;
}

asio::awaitable<ReceiveBlockResult> PieceManager::completePiece(int pieceIndex) {
    const auto found = inFlight_.find(pieceIndex);
    if (found == inFlight_.end() || !found->second.isWhole() || found->second.isSubmitted)
        co_return ReceiveBlockResult::failed;
    // The entry stays where it is until finish(): nothing else ends a piece that is submitted.
    PieceInFlight& piece = found->second;
    auto visit = [this, pieceIndex, &piece] { return hashAndWrite(pieceIndex, piece); };
    piece.isSubmitted = true;
    std::optional<Outcome> outcome;
    std::exception_ptr failure;
    try {
        outcome = co_await runOn(environment_.disk, std::move(visit));
    } catch (...) {
        failure = std::current_exception();
    }
    if (failure) {
        // The caller was cancelled before the work began; the piece is its again, to be given up.
        piece.isSubmitted = false;
        std::rethrow_exception(failure);
    }
    co_return finish(pieceIndex, *outcome);
}

/// Runs on the disk pool.
PieceManager::Outcome PieceManager::hashAndWrite(int piece, const PieceInFlight& data) {
    Outcome outcome;
    const std::vector<iovec> buffers = data.buffers();
    SHA1Hasher hasher;
    for (const iovec& buffer : buffers)
        hasher.update({static_cast<const std::uint8_t*>(buffer.iov_base), buffer.iov_len});
    outcome.isVerified = std::ranges::equal(hasher.finish(), metaInfo_->pieceHash(piece));
    if (!outcome.isVerified) return outcome;
    try {
        storage_->write(offsetOf(piece), buffers);
    } catch (const StorageException& error) {
        outcome.writeError = error.what();
        outcome.writeErrno = error.code;
    } catch (const std::exception& error) {
        outcome.writeError = error.what();
    }
    return outcome;
}

ReceiveBlockResult PieceManager::finish(int piece, const Outcome& outcome) {
    if (outcome.isVerified && !outcome.writeError) {
        dropInFlight(piece);
        markCompleted(piece);
        if (isComplete()) chunks_.trim();
        onStorageSuccess();
        return ReceiveBlockResult::completed;
    }
    downloadedBytes_ -= metaInfo_->pieceSize(piece);
    dropInFlight(piece);
    picker_.addCandidate(piece);
    if (!outcome.isVerified) {
        environment_.log.info("[PieceManager] Piece ", piece, " hash mismatch, re-downloading");
        trouble_.onGivenUp(piece);
        return ReceiveBlockResult::failed;
    }
    onStorageFailure(piece, outcome.writeErrno, *outcome.writeError, "write piece " + std::to_string(piece));
    return ReceiveBlockResult::failed;
}

void PieceManager::onStorageFailure(int piece, int code, const std::string& text, std::string_view what) {
    storageErrno_ = code;
    const bool isNews = trouble_.onFailure(piece, environment_.clock.now(), text);
    environment_.log.log(isNews ? LogLevel::warning : LogLevel::debug, "[PieceManager] Failed to ", what, ": ", text);
    if (isNews && onStorageProblem_) onStorageProblem_(trouble_.text());
}

void PieceManager::onStorageSuccess() {
    if (trouble_.onSuccess() && onStorageProblem_) onStorageProblem_(std::nullopt);
}

void PieceManager::resetPiece(int piece) {
    const auto found = inFlight_.find(piece);
    if (found == inFlight_.end() || found->second.isSubmitted) return;
    downloadedBytes_ -= found->second.size();
    dropInFlight(piece);
    picker_.addCandidate(piece);
    trouble_.onGivenUp(piece);
}

void PieceManager::dropInFlight(int piece) {
    const auto found = inFlight_.find(piece);
    const std::int64_t size = found->second.size();
    endRest(piece, found->second);
    if (found->second.isWhole()) unwrittenBytes_ -= size;
    bufferedBytes_ -= size;
    inFlight_.erase(found);
    room_.cancel();
}

void PieceManager::markCompleted(int piece) {
    completed_.insert(piece);
    completedBytes_ += metaInfo_->pieceSize(piece);
}

Bytes PieceManager::bitfield() const { return completed_.toBitfield(); }

asio::awaitable<std::optional<Bytes>> PieceManager::readBlock(int pieceIndex, int begin, int length) {
    const BlockRequest block{pieceIndex, begin, length};
    if (!isReadable(block)) co_return std::nullopt;
    Bytes data(static_cast<std::size_t>(length));
    std::vector<BlockRead> reads;
    reads.push_back(BlockRead{block, data});
    co_await readBlocks(reads);
    if (!reads.front().ok) co_return std::nullopt;
    co_return std::move(data);
}

asio::awaitable<void> PieceManager::readBlocks(std::vector<BlockRead>& reads) {
    std::vector<BlockRead*> readable;
    readable.reserve(reads.size());
    for (BlockRead& read : reads) {
        read.ok = false;
        if (isReadable(read.request) && read.into.size() == static_cast<std::size_t>(read.request.length))
            readable.push_back(&read);
    }
    if (readable.empty()) co_return;
    auto visit = [this, &readable] { readNow(readable); };
    co_await runOn(environment_.disk, std::move(visit));
}

/// Runs on the disk pool.
void PieceManager::readNow(std::vector<BlockRead*>& reads) {
    const auto start = [this](const BlockRead& read) { return offsetOf(read.request.pieceIndex) + read.request.begin; };
    std::ranges::stable_sort(reads, {}, [&](const BlockRead* read) { return start(*read); });
    const auto attempt = [&](std::size_t first, std::size_t end) {
        std::vector<iovec> buffers;
        for (std::size_t i = first; i < end; ++i) buffers.push_back({reads[i]->into.data(), reads[i]->into.size()});
        try {
            storage_->read(start(*reads[first]), buffers);
        } catch (const StorageException&) {
            return false;
        }
        for (std::size_t i = first; i < end; ++i) reads[i]->ok = true;
        return true;
    };
    for (std::size_t first = 0; first < reads.size();) {
        std::size_t end = first + 1;
        while (end < reads.size() && start(*reads[end]) == start(*reads[end - 1]) + reads[end - 1]->request.length)
            ++end;
        // One that cannot be read must not take its neighbours along.
        if (!attempt(first, end) && end - first > 1)
            for (std::size_t i = first; i < end; ++i) attempt(i, i + 1);
        first = end;
    }
}

bool PieceManager::isReadable(const BlockRequest& block) const noexcept {
    return completed_.contains(block.pieceIndex) && block.begin >= 0 && block.length >= 0 &&
           std::int64_t{block.begin} + block.length <= metaInfo_->pieceSize(block.pieceIndex);
}

asio::awaitable<PieceSet> PieceManager::secure(Scrutiny scrutiny) {
    PieceSet secured = completed_;
    if (refusal_) co_return secured;
    auto look = [this](std::size_t first, std::size_t count) { storage_->lookForChanges(first, count); };
    if (scrutiny == Scrutiny::allFiles) co_await visitFiles(std::move(look));
    StorageAssurance assurance(*metaInfo_, *storage_, {environment_.disk, environment_.log});
    std::optional<StorageException> failure;
    try {
        co_await assurance.sync();
    } catch (const StorageException& error) {
        failure.emplace(error);
    }
    const PieceSet wrong = co_await assurance.wrongPieces(completed_);
    lose(wrong);
    if (failure) {
        onStorageFailure(-1, failure->code, failure->what(), "sync");
        throw StorageException(*failure);
    }
    onStorageSuccess();
    wrong.forEach([&](int piece) { secured.erase(piece); });
    co_return secured;
}

void PieceManager::lose(const PieceSet& wrong) {
    wrong.forEach([&](int piece) {
        conditions_[static_cast<std::size_t>(piece)] = PieceCondition::bad;
        completed_.erase(piece);
        completedBytes_ -= metaInfo_->pieceSize(piece);
        downloadedBytes_ -= metaInfo_->pieceSize(piece);
        picker_.addCandidate(piece);
    });
    if (!wrong.empty() && onPiecesLost_) onPiecesLost_();
}

asio::awaitable<void> PieceManager::cleanup() {
    chunks_.trim();
    if (refusal_) co_return;
    auto visit = [this] { storage_->close(); };
    co_await runOn(environment_.disk, std::move(visit));
}

double PieceManager::progress() const noexcept {
    return completed_.size() == 0 ? 1.0 : static_cast<double>(completed_.count()) / completed_.size();
}

std::vector<bool> PieceManager::completionBitmap() const {
    std::vector<bool> bitmap(static_cast<std::size_t>(completed_.size()));
    completed_.forEach([&](int piece) { bitmap[static_cast<std::size_t>(piece)] = true; });
    return bitmap;
}

std::int64_t PieceManager::downloadedBytes() const noexcept { return std::max<std::int64_t>(downloadedBytes_, 0); }

PieceManager::State PieceManager::pieceState(int piece) const noexcept {
    if (completed_.contains(piece)) return State::completed;
    const auto found = inFlight_.find(piece);
    return found != inFlight_.end() && !found->second.isResting ? State::downloading : State::missing;
}

asio::awaitable<void> PieceManager::roomToReceive() {
    const std::int64_t piece = std::min(metaInfo_->pieceLength, metaInfo_->totalSize);
    const std::int64_t limit = std::max(2 * piece, std::clamp(8 * piece, leastUnwrittenLimit, mostUnwrittenLimit));
    while (unwrittenBytes_ >= limit) co_await room_.async_wait(asio::as_tuple(asio::use_awaitable));
}

void PieceManager::setStorageProblemCallback(std::function<void(const std::optional<std::string>&)> callback) {
    onStorageProblem_ = std::move(callback);
}

std::int64_t PieceManager::offsetOf(int piece) const noexcept { return piece * metaInfo_->pieceLength; }

}  // namespace skein
