#include "app/TransferReport.h"

#include "app/Command.h"
#include "app/Quantities.h"
#include "app/RowJSON.h"
#include "public/common/PlainJSON.h"
#include "public/common/Printable.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

std::string formatDuration(double seconds) {
    const auto whole = static_cast<long>(std::ceil(seconds));
    char text[32];
    if (seconds < 10) {
        std::snprintf(text, sizeof text, "%.1f s", seconds);
    } else if (whole < 60) {
        std::snprintf(text, sizeof text, "%ld s", whole);
    } else if (whole < 3600) {
        std::snprintf(text, sizeof text, "%ld min %02ld s", whole / 60, whole % 60);
    } else {
        std::snprintf(text, sizeof text, "%ld h %02ld min", whole / 3600, whole / 60 % 60);
    }
    return text;
}

std::string formatPercent(double fraction) {
    char text[16];
    std::snprintf(text, sizeof text, "%.1f %%", std::floor(fraction * 1000) / 10);
    return text;
}

std::string amount(const TransferStatus& of) {
    if (!of.total) return formatByteCount(of.downloaded) + " of unknown size";
    const double fraction = *of.total == 0 ? 1 : static_cast<double>(of.downloaded) / static_cast<double>(*of.total);
    return formatPercent(fraction) + " of " + formatByteCount(*of.total);
}

std::string timeLeft(const TransferStatus& of) {
    const auto missing = static_cast<double>(of.total.value_or(0) - of.downloaded);
    return formatDuration(std::max(missing, 0.0) / static_cast<double>(of.downloadRate));
}

}  // namespace

std::string_view textOf(TorrentSession::State::Kind kind) noexcept {
    using Kind = TorrentSession::State::Kind;
    switch (kind) {
        case Kind::idle: return "idle";
        case Kind::fetchingMetadata: return "fetchingMetadata";
        case Kind::downloading: return "downloading";
        case Kind::paused: return "paused";
        case Kind::seeding: return "seeding";
        case Kind::completed: return "completed";
        case Kind::error: return "error";
    }
    return "";
}

/// One event: the keys that all have, then its own; written whole, so that a reader sees it at once.
class TransferReport::JSONLine {
public:
    JSONLine(const Clock& clock, const TransferStatus& of, std::string_view event)
        : object{{"event", event}, {"time", secondsSince1970(clock.wallNow())}} {
        if (of.url.empty()) {
            object["infoHash"] = of.infoHashHex;
        } else {
            object["url"] = of.url;
        }
    }
    JSONLine(const JSONLine&) = delete;
    JSONLine& operator=(const JSONLine&) = delete;
    ~JSONLine() { std::cout << plainJSON(object) << std::endl; }

    json::object object;
};

TransferReport::TransferReport(Clock& clock, bool isJSON) : clock_(clock), isJSON_(isJSON) {
    if (!isJSON_) line_ = std::make_unique<ProgressLine>(clock_);
}

TransferReport::~TransferReport() = default;

void TransferReport::listening(const TransferStatus& of, std::uint16_t port, std::uint16_t dhtPort) {
    if (!isJSON_) return;
    JSONLine line(clock_, of, "listening");
    line.object["port"] = port;
    if (dhtPort != 0) line.object["dhtPort"] = dhtPort;
}

void TransferReport::state(const TransferStatus& of, const std::string& message) {
    if (!isJSON_) return;
    JSONLine line(clock_, of, "state");
    line.object["state"] = textOf(of.state);
    if (of.state == TorrentSession::State::Kind::error) line.object["message"] = message;
}

void TransferReport::status(const TransferStatus& of, const std::string& message) {
    lastStatus_ = message;
    if (isJSON_) JSONLine(clock_, of, "status").object["message"] = message;
}

void TransferReport::metadata(const TransferStatus& of, const TorrentMetaInfo& metaInfo) {
    if (!isJSON_) return;
    JSONLine line(clock_, of, "metadata");
    line.object["name"] = metaInfo.name;
    line.object["totalSize"] = metaInfo.totalSize;
    line.object["pieceCount"] = metaInfo.pieceCount();
    line.object["fileCount"] = metaInfo.files.size();
}

void TransferReport::fileInfo(const TransferStatus& of) {
    if (!isJSON_) return;
    JSONLine line(clock_, of, "metadata");
    line.object["name"] = of.name;
    line.object["totalSize"] = of.total.value_or(0);
    line.object["pieceCount"] = 0;
    line.object["fileCount"] = 1;
}

void TransferReport::stall(TransferStatus& of, const std::optional<StallReason>& reason) {
    of.stall = reason ? reason->sentence() : "";
    if (!isJSON_ || !reason) return;
    JSONLine line(clock_, of, "stalled");
    line.object["cause"] = textOf(reason->cause);
    line.object["message"] = reason->sentence();
}

void TransferReport::progress(const TransferStatus& of) {
    if (!isJSON_) return;
    JSONLine line(clock_, of, "progress");
    line.object["progress"] = of.progress;
    line.object["downloaded"] = of.downloaded;
    line.object["total"] = of.total.value_or(0);
    line.object["downloadRate"] = of.downloadRate;
    line.object["uploadRate"] = of.uploadRate;
    line.object["uploaded"] = of.uploaded;
    line.object["peers"] = of.peers;
}

void TransferReport::peers(const TransferStatus& of, const std::vector<PeerRuntimeInfo>& rows) {
    if (!isJSON_) return;
    json::array array;
    for (const PeerRuntimeInfo& row : rows) array.push_back(toJSON(row));
    JSONLine(clock_, of, "peers").object["peers"] = std::move(array);
}

void TransferReport::trackers(const TransferStatus& of, const std::vector<TrackerRuntimeInfo>& rows) {
    if (!isJSON_) return;
    json::array array;
    for (const TrackerRuntimeInfo& row : rows) array.push_back(toJSON(row));
    JSONLine(clock_, of, "trackers").object["trackers"] = std::move(array);
}

void TransferReport::completed(const TransferStatus& of, double seconds, bool hasDownloaded) {
    if (isJSON_) {
        JSONLine line(clock_, of, "completed");
        line.object["seconds"] = seconds;
        line.object["bytes"] = of.total.value_or(of.downloaded);
        return;
    }
    line_ = std::make_unique<ProgressLine>(clock_);  // takes the old one off the terminal
    const std::string size = formatByteCount(of.total.value_or(of.downloaded));
    if (!hasDownloaded) {
        std::cout << printable(of.name) << ": all " << size << " are there already" << std::endl;
        return;
    }
    const std::int64_t fresh = of.total.value_or(of.downloaded) - of.present;
    const auto rate = static_cast<std::int64_t>(static_cast<double>(fresh) / std::max(seconds, 0.001));
    std::cout << printable(of.name) << ": complete, " << size
              << (of.present > 0 ? ", " + formatByteCount(fresh) + " of it" : "") << " in " << formatDuration(seconds)
              << " (" << formatByteCount(rate) << "/s)" << std::endl;
}

void TransferReport::error(const TransferStatus& of, const std::string& message) {
    if (isJSON_) {
        JSONLine(clock_, of, "error").object["message"] = message;
    } else {
        line_ = std::make_unique<ProgressLine>(clock_);
    }
    reportFailure((of.name.empty() ? of.infoHashHex : of.name) + ": " + message);
}

void TransferReport::overview(const std::vector<const TransferStatus*>& all) {
    if (isJSON_ || all.empty()) return;
    using Kind = TorrentSession::State::Kind;
    TransferStatus sum;
    std::size_t verifying = 0;
    std::size_t fetching = 0;
    bool isDownloading = false;
    sum.total = 0;
    for (const TransferStatus* const one : all) {
        sum.total = sum.total && one->total ? std::optional(*sum.total + *one->total) : std::nullopt;
        if (!one->stall.empty()) sum.stall = one->stall;
        sum.downloaded += one->downloaded;
        sum.downloadRate += one->downloadRate;
        sum.uploadRate += one->uploadRate;
        sum.uploaded += one->uploaded;
        sum.peers += one->peers;
        sum.verified += one->verified;
        fetching += one->state == Kind::fetchingMetadata ? 1 : 0;
        verifying += one->state == Kind::idle ? 1 : 0;
        isDownloading = isDownloading || one->state == Kind::downloading;
    }
    const std::string name = all.size() == 1 ? printable(all.front()->name) : std::to_string(all.size()) + " torrents";
    if (verifying == all.size())
        return line_->show(name + ": verifying " + formatPercent(sum.verified / static_cast<double>(all.size())));
    const std::string peers = std::to_string(sum.peers) + (sum.peers == 1 ? " peer" : " peers");
    if (fetching == all.size()) {
        const std::string& said = sum.stall.empty() ? lastStatus_ : sum.stall;
        return line_->show(name + ": " + printable(said) + ", " + peers);
    }
    const std::string up = formatByteCount(sum.uploadRate) + "/s up";
    if (!isDownloading)
        return line_->show(name + ": seeding, " + up + ", " + formatByteCount(sum.uploaded) + " sent, " + peers);
    std::string text =
        name + ": " + amount(sum) + ", " + formatByteCount(sum.downloadRate) + "/s down, " + up + ", " + peers;
    if (sum.downloadRate > 0) {
        if (sum.total) text += ", " + timeLeft(sum) + " left";
    } else if (!sum.stall.empty()) {
        text += ", " + printable(sum.stall);
    } else if (!lastStatus_.empty()) {
        text += ", " + printable(lastStatus_);
    }
    line_->show(text);
}

}  // namespace skein
