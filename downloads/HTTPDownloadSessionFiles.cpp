// What an HTTP download does on the disk.

#include "downloads/BootIdentity.h"
#include "downloads/HTTPDownloadSession.h"
#include "public/common/ByteCountText.h"
#include "public/common/RunOn.h"

#include <algorithm>
#include <system_error>
#include <utility>

namespace skein {

namespace {

/// Calm to look at, and cheap however fast the bytes come.
constexpr std::chrono::milliseconds reportInterval{200};

}  // namespace

/// Takes up what an earlier run left.
asio::awaitable<HTTPDownloadSession::Opening> HTTPDownloadSession::openPart(bool isResumption) {
    bool isFinished = false;
    auto open = [this, &isFinished] {
        auto data = ResumeData::load(resumeDataURL_, url_);
        if (!data) return;
        part_ = PartFile::reopen(savePath_, data->fileName, data->part);
        resumeData_ = std::move(*data);
        if (part_) part_->truncate(resumeData_.trustedBytes(part_->size()));
        isFinished = !part_ && resumeData_.isFinishedIn(savePath_);
    };
    try {
        co_await runOn(environment_.disk, std::move(open));
    } catch (const std::system_error& error) {
        noteFileFailure(error);
        co_return Opening::unusable;
    }
    if (isFinished) co_return Opening::finished;
    if (!part_) co_return Opening::usable;
    takeOver(resumeData_.totalBytes);
    if (part_->size() == 0) co_return Opening::usable;
    const std::string size = formatByteCount(part_->size());
    if (isResumption) {
        setStatus("Resumed from " + size);
    } else {
        setStatus("Resuming download...");
        setStatus("Resuming from " + size);
    }
    co_return Opening::usable;
}

/// Takes over what was begun of the same file under the same address with another query, if there is such: it is ours
/// from then on. What is open elsewhere, or was told to bear another name, stays where it is.
asio::awaitable<bool> HTTPDownloadSession::adoptPart(const HTTPResponse& head, std::int64_t totalBytes) {
    auto adopt = [this, &head, totalBytes] {
        const std::filesystem::path& folder = environment_.resumeFolder;
        for (ResumeData& data : ResumeData::withOtherQuery(folder, url_, savePath_)) {
            if (!data.isCertainlyOf(head, totalBytes) || (fileName_ && *fileName_ != data.fileName)) continue;
            std::unique_ptr<PartFile> part;
            try {
                part = PartFile::reopen(savePath_, data.fileName, data.part);
            } catch (const std::system_error&) {
                continue;
            }
            if (!part) continue;
            part->truncate(data.trustedBytes(part->size()));
            const std::filesystem::path before = ResumeData::fileFor(folder, data.url, savePath_);
            data.url = url_;
            // In this order: killed in between, two records speak of the part, and whoever comes first takes it.
            data.save(resumeDataURL_);
            std::filesystem::remove(before);
            resumeData_ = std::move(data);
            part_ = std::move(part);
            return;
        }
    };
    co_await runOn(environment_.disk, std::move(adopt));
    if (!part_) co_return false;
    takeOver(totalBytes);
    setStatus("Resuming from " + formatByteCount(part_->size()));
    co_return true;
}

/// Has an empty part, and the resume data that speaks of it.
asio::awaitable<void> HTTPDownloadSession::preparePart(ResumeData data) {
    resumeData_ = std::move(data);
    auto prepare = [this] {
        // In this order: killed at any point, no part goes on with data that was written of another.
        const bool isNew = !part_;
        if (isNew) part_ = PartFile::create(savePath_, resumeData_.fileName);
        if (!isNew) part_->truncate(0);
        resumeData_.fileName = part_->name();
        resumeData_.part = part_->identity();
        resumeData_.bootID = bootIdentity();
        try {
            resumeData_.save(resumeDataURL_);
        } catch (const std::system_error&) {
            // Nobody would know again what it is a part of.
            if (isNew) std::exchange(part_, nullptr)->discard();
            throw;
        }
    };
    co_await runOn(environment_.disk, std::move(prepare));
    lastRecordAt_ = environment_.clock.now();
}

asio::awaitable<void> HTTPDownloadSession::store(std::vector<Bytes>& chunks) {
    std::size_t size = 0;
    for (const Bytes& chunk : chunks) size += chunk.size();
    const std::int64_t total = progress_.expectedContentLength();
    if (total >= 0 && part_->size() + static_cast<std::int64_t>(size) > total)
        throw HTTPException(HTTPError::transferFailed, "more came than was announced");
    if (throttle_.isLimited()) {
        for (const Bytes& chunk : chunks) co_await storeSlowly(chunk);
    } else {
        auto write = [this, &chunks] {
            for (const Bytes& chunk : chunks) part_->append(chunk);
        };
        co_await runOn(environment_.disk, std::move(write));
    }
    const Clock::TimePoint now = environment_.clock.now();
    progress_.moveTo(part_->size());
    if (now - lastReportAt_ >= reportInterval) handleProgress();
    if (now - lastRecordAt_ >= recordInterval) co_await saveResumeData();
}

/// Slice by slice, so that a limited download flows; the server waits while we do.
asio::awaitable<void> HTTPDownloadSession::storeSlowly(ByteView bytes) {
    while (!bytes.empty()) {
        const auto portion = std::max<std::int64_t>(throttle_.portion(std::ssize(bytes)), 1);
        const auto slice = bytes.first(static_cast<std::size_t>(portion));
        bytes = bytes.subspan(slice.size());
        auto write = [this, slice] { part_->append(slice); };
        co_await runOn(environment_.disk, std::move(write));
        progress_.moveTo(part_->size());
        co_await environment_.clock.sleep(throttle_.book(portion, environment_.clock.now()));
    }
}

/// Drops what there is of a file that is no longer the server's. False when even that fails.
asio::awaitable<bool> HTTPDownloadSession::startAgain() {
    auto empty = [this] { part_->truncate(0); };
    try {
        co_await runOn(environment_.disk, std::move(empty));
    } catch (const std::system_error& error) {
        noteFileFailure(error);
        co_return false;
    }
    setStatus("The file has changed, starting again...");
    co_return true;
}

/// In this order: killed at any point, the file is found whole again, by its part or by its name.
void HTTPDownloadSession::finishPart() {
    part_->sync();
    part_->finish([this](const std::string& name) {
        resumeData_.finishedName = name;
        resumeData_.syncedBytes = part_->size();
        try {
            resumeData_.save(resumeDataURL_);
        } catch (const std::system_error& error) {
            // Less safe, but for want of space in one place a file is not refused in another.
            environment_.log.warning("[HTTP] resume data not saved: ", error.what());
        }
    });
}

/// Without a part, the file was finished before.
asio::awaitable<void> HTTPDownloadSession::handleCompletion() {
    const bool isNewName = !part_;
    auto finish = [this] {
        if (part_) finishPart();
        std::error_code ignored;  // what is left of it finds the file finished, or is passed over
        if (!keepsRecord_) std::filesystem::remove(resumeDataURL_, ignored);
        part_.reset();
    };
    bool isFinished = false;
    try {
        co_await runOn(environment_.disk, std::move(finish));
        isFinished = true;
    } catch (const std::system_error& error) {
        noteFileFailure(error);
    }
    if (!isFinished) {
        co_await handleError();
        co_return;
    }
    destination_ = savePath_ / resumeData_.finishedName;
    progress_.complete(resumeData_.syncedBytes);
    if (isNewName || resumeData_.finishedName != resumeData_.fileName) reportFileInfo();
    handleProgress();
    setState(State::Kind::completed);
    setStatus("Download complete");
    environment_.log.info("[HTTP] complete: ", resumeData_.finishedName, ", ", resumeData_.syncedBytes, " bytes");
}

/// Puts down how far we are. What fails is only noted: what was put down before still holds.
asio::awaitable<void> HTTPDownloadSession::saveResumeData() {
    auto save = [this] {
        part_->sync();
        resumeData_.part = part_->identity();
        resumeData_.syncedBytes = part_->size();
        resumeData_.bootID = bootIdentity();
        resumeData_.save(resumeDataURL_);
    };
    try {
        co_await runOn(environment_.disk, std::move(save));
    } catch (const std::system_error& error) {
        environment_.log.warning("[HTTP] resume data not saved: ", error.what());
    }
    lastRecordAt_ = environment_.clock.now();
}

asio::awaitable<void> HTTPDownloadSession::closePart() {
    if (!part_) co_return;
    co_await saveResumeData();
    auto close = [part = std::move(part_)]() mutable { part.reset(); };
    co_await runOn(environment_.disk, std::move(close));
}

}  // namespace skein
