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
        if (!data) return findFinished();
        resumeData_ = std::move(*data);
        isFinished = resumeData_.isFinishedIn(savePath_);
        if (isFinished) {
            // Where a file system cannot rename, the part is a second name of the file for a moment.
            PartFile::remove(savePath_, resumeData_.fileName, resumeData_.part);
            return;
        }
        part_ = PartFile::reopen(savePath_, resumeData_.fileName, resumeData_.part, environment_.files);
        if (!part_) return;
        if (resumeData_.isWhole(part_->stamp())) resumeData_.totalBytes = part_->size();
        trustPart();
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

/// A file that this URL and folder brought before, which the server is asked about.
void HTTPDownloadSession::findFinished() {
    if (keepsRecord_) return;
    auto data = finished_.find(url_, savePath_);
    if (!data || (fileName_ && *fileName_ != data->fileName)) return;
    resumeData_ = *std::move(data);
    isFinishedBefore_ = true;
}

/// Keeps what `resumeData_` vouches for of the part.
void HTTPDownloadSession::trustPart() {
    part_->truncate(resumeData_.trustedBytes(part_->stamp()));
    part_->noteSynced(resumeData_.syncedBytes);
    try {
        // What a killed run wrote last may not have reached the device, and the system tells that once.
        part_->sync();
    } catch (const std::system_error& error) {
        environment_.log.warning("[HTTP] some of it is fetched again: ", error.what());
    }
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
                part = PartFile::reopen(savePath_, data.fileName, data.part, environment_.files);
            } catch (const std::system_error&) {
                continue;
            }
            if (!part) continue;
            const std::filesystem::path before = ResumeData::fileFor(folder, data.url, savePath_);
            data.url = url_;
            // In this order: killed in between, two records speak of the part, and whoever comes first takes it.
            data.save(resumeDataURL_);
            std::filesystem::remove(before);
            resumeData_ = std::move(data);
            part_ = std::move(part);
            return trustPart();
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
        // In this order: killed at any point, a part that was made is found again, and none goes on with data that was
        // written of another.
        const auto foretell = [this](const std::string& name) {
            resumeData_.fileName = name;
            resumeData_.save(resumeDataURL_);
        };
        const bool isNew = !part_;
        try {
            if (isNew) part_ = PartFile::create(savePath_, resumeData_.fileName, foretell, environment_.files);
            if (!isNew) part_->truncate(0);
            resumeData_.fileName = part_->name();
            putDownPart();
        } catch (const std::system_error&) {
            // Nobody would know again what it is a part of.
            std::error_code ignored;
            if (isNew && part_) std::exchange(part_, nullptr)->discard();
            if (isNew) std::filesystem::remove(resumeDataURL_, ignored);
            throw;
        }
    };
    co_await runOn(environment_.disk, std::move(prepare));
    lastRecordAt_ = environment_.clock.now();
}

/// False when the part is not sound any more.
asio::awaitable<bool> HTTPDownloadSession::store(std::vector<Bytes>& chunks) {
    std::size_t size = 0;
    for (const Bytes& chunk : chunks) size += chunk.size();
    if (bodyEnd_ >= 0 && part_->size() + static_cast<std::int64_t>(size) > bodyEnd_)
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
    if (now - lastRecordAt_ < recordInterval) co_return true;
    co_return co_await saveResumeData();
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

/// Whether all of the part is on the device, and what was written. What is not is dropped, also when this throws.
bool HTTPDownloadSession::settlePart() {
    std::string altered = part_->name() + std::string(PartFile::suffix) + " was changed by another program";
    if (part_->isAltered()) {
        noteFailure(std::move(altered), "the part was changed by another program");
        // What took its place is not ours.
        if (part_->isInPlace()) {
            part_->truncate(0);
        } else {
            part_.reset();
        }
        return false;
    }
    try {
        part_->sync();
        return true;
    } catch (const std::system_error& error) {
        noteFileFailure(error);
        return false;
    }
}

/// Saves what there is of the part, which is on the device.
void HTTPDownloadSession::putDownPart() {
    resumeData_.part = part_->identity();
    resumeData_.partModified = part_->stamp().modified;
    resumeData_.syncedBytes = part_->size();
    resumeData_.finishedName.clear();
    resumeData_.bootID = bootIdentity();
    resumeData_.save(resumeDataURL_);
}

/// In this order: killed at any point, the file is found whole again, by its part or by its name.
void HTTPDownloadSession::finishPart() {
    part_->finish([this](const std::string& name) {
        resumeData_.finishedName = name;
        resumeData_.part = part_->identity();
        resumeData_.partModified = part_->stamp().modified;
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
asio::awaitable<HTTPDownloadSession::Ending> HTTPDownloadSession::handleCompletion() {
    const bool isNewName = !part_;
    auto finish = [this] {
        if (part_ && !settlePart()) return false;
        if (part_) finishPart();
        part_.reset();
        if (!keepsRecord_) finished_.keep();
        return true;
    };
    try {
        const bool isFinished = co_await runOn(environment_.disk, std::move(finish));
        if (!isFinished) co_return Ending::spoilt;
    } catch (const std::system_error& error) {
        noteFileFailure(error);
        co_return Ending::failed;
    }
    destination_ = savePath_ / resumeData_.finishedName;
    progress_.complete(resumeData_.syncedBytes);
    if (isNewName || resumeData_.finishedName != resumeData_.fileName) reportFileInfo();
    handleProgress();
    setState(State::Kind::completed);
    setStatus("Download complete");
    environment_.log.info("[HTTP] complete: ", resumeData_.finishedName, ", ", resumeData_.syncedBytes, " bytes");
    co_return Ending::complete;
}

/// Puts down how far we are. A record that cannot be saved is only noted: what was put down before still holds. False
/// when the part was not sound, and some of it was dropped.
asio::awaitable<bool> HTTPDownloadSession::saveResumeData() {
    bool isSound = false;
    auto save = [this, &isSound] {
        isSound = settlePart();
        if (part_) putDownPart();
    };
    try {
        co_await runOn(environment_.disk, std::move(save));
    } catch (const std::system_error& error) {
        environment_.log.warning("[HTTP] resume data not saved: ", error.what());
    }
    lastRecordAt_ = environment_.clock.now();
    co_return isSound;
}

asio::awaitable<void> HTTPDownloadSession::closePart() {
    if (!part_) co_return;
    co_await saveResumeData();
    auto close = [part = std::move(part_)]() mutable { part.reset(); };
    co_await runOn(environment_.disk, std::move(close));
}

}  // namespace skein
