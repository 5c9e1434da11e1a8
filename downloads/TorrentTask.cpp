#include "downloads/TorrentTask.h"

#include "Core/formats/MagnetParseError.h"
#include "Core/formats/MagnetParser.h"
#include "public/common/ByteCountText.h"

#include <algorithm>
#include <limits>
#include <string_view>
#include <utility>

namespace skein {

namespace {

std::optional<std::string> nameInMagnet(const std::string& link) {
    try {
        return MagnetParser::parse(link).displayName;
    } catch (const MagnetParseException&) {
        return std::nullopt;
    }
}

/// The last component of the path, else the host.
std::string_view nameInURL(std::string_view url) {
    url = url.substr(0, url.find_first_of("?#"));
    while (url.ends_with('/')) url.remove_suffix(1);
    return url.substr(url.rfind('/') + 1);
}

}  // namespace

TorrentTask::TorrentTask(MsgCenter& center, TaskIdentity identity)
    : changes_(center, identity.id),
      id(identity.id),
      infoHash(std::move(identity.infoHash)),
      magnetURI(std::move(identity.magnetURI)),
      downloadURL(std::move(identity.downloadURL)),
      downloadType(identity.downloadType) {}

bool TorrentTask::isFinished() const noexcept {
    return status() == TaskStatus::completed || status() == TaskStatus::seeding;
}

std::string TorrentTask::formattedSize() const { return formatByteCount(totalSize()); }
std::string TorrentTask::formattedDownloaded() const { return formatByteCount(downloadedBytes()); }
std::string TorrentTask::formattedSpeed() const { return formatByteCount(downloadSpeed()) + "/s"; }

std::string TorrentTask::getDisplayName() const {
    if (!name().empty()) return name();
    if (magnetURI) {
        if (auto named = nameInMagnet(*magnetURI); named && !named->empty()) return *std::move(named);
    }
    if (downloadURL) {
        if (const std::string_view named = nameInURL(*downloadURL); !named.empty()) return std::string(named);
    }
    return infoHash;
}

std::optional<double> TorrentTask::ratio() const noexcept {
    if (downloadType != DownloadType::torrent || downloadedBytes() <= 0) return std::nullopt;
    return static_cast<double>(uploadedBytes()) / static_cast<double>(downloadedBytes());
}

std::optional<std::chrono::seconds> TorrentTask::eta() const noexcept {
    const std::int64_t missing = totalSize() - downloadedBytes();
    if (isFinished() || downloadSpeed() <= 0 || missing <= 0) return std::nullopt;
    return std::chrono::seconds((missing - 1) / downloadSpeed() + 1);
}

TorrentTask::Text TorrentTask::remainingTime() const {
    const auto left = eta();
    if (!left) return std::nullopt;
    const std::int64_t seconds = left->count();
    if (seconds < 60) return std::to_string(seconds) + " s";
    if (seconds < 3600) return std::to_string(seconds / 60) + " min " + std::to_string(seconds % 60) + " s";
    return std::to_string(seconds / 3600) + " h " + std::to_string(seconds / 60 % 60) + " min";
}

double TorrentTask::fileProgress(const TorrentFileInfo& file) const {
    if (isFinished()) return 1.0;
    const std::vector<bool>& pieces = pieceBitmap();
    // A saved list may say anything of a file; a sum of two such numbers must not overflow.
    const bool isSound = file.offset >= 0 && file.size <= std::numeric_limits<std::int64_t>::max() - file.offset;
    if (pieceLength() <= 0 || pieces.empty() || !isSound) return progress();
    const auto lastPiece = static_cast<std::int64_t>(pieces.size()) - 1;
    const std::int64_t first = std::min(file.offset / pieceLength(), lastPiece);
    const std::int64_t end = file.offset + std::max<std::int64_t>(file.size, 1) - 1;
    const std::int64_t last = std::clamp(end / pieceLength(), first, lastPiece);
    const auto good = std::count(pieces.begin() + first, pieces.begin() + last + 1, true);
    return static_cast<double>(good) / static_cast<double>(last - first + 1);
}

void TorrentTask::forgetCredit() {
    const TaskChanges::Batch together = batch();
    currencyEarned.set(0);
    currencySpent.set(0);
    currencyEarnedConfirmed.set(0);
    currencySpentConfirmed.set(0);
    dlBytesFromPlatformPeers.set(0);
    dlBytesFromPublicBT.set(0);
    dlBytesFromRelay.set(0);
    uncommittedDlBytesFromPlatformPeers.set(0);
    uncommittedDlBytesFromPublicBT.set(0);
    uncommittedDlBytesFromRelay.set(0);
    uncommittedUploadedBytes = 0;
}

void TorrentTask::markCompleted() {
    const auto all = batch();
    status.set(TaskStatus::completed);
    progress.set(1.0);
    if (pieceCount() > 0) pieceBitmap.set(std::vector<bool>(static_cast<std::size_t>(pieceCount()), true));
}

}  // namespace skein
