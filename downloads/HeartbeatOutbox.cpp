#include "downloads/HeartbeatOutbox.h"

#include "Core/engine/ResourceTexts.h"
#include "public/common/PlainJSON.h"

#include <boost/asio/error.hpp>
#include <boost/describe/class.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value_from.hpp>
#include <boost/json/value_to.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <utility>

namespace skein {

namespace {

namespace json = boost::json;

struct KeptPeer {
    std::string user;
    std::int64_t verified = 0;
    std::int64_t sent = 0;
};
BOOST_DESCRIBE_STRUCT(KeptPeer, (), (user, verified, sent))

/// A report as the settings keep it.
struct KeptReport {
    std::string userID;
    std::string eventID;
    std::string infoHash;
    std::string uploadMode;
    std::int64_t uploadDelta = 0;
    std::int64_t downloadDelta = 0;
    std::vector<KeptPeer> peers;
};
BOOST_DESCRIBE_STRUCT(KeptReport, (), (userID, eventID, infoHash, uploadMode, uploadDelta, downloadDelta, peers))

KeptReport kept(const HeartbeatPayload& report) {
    KeptReport result{report.userID,
                      report.eventID,
                      report.infoHash,
                      std::string(textOf(report.uploadMode)),
                      report.uploadDelta,
                      report.downloadDelta,
                      {}};
    for (const PeerReport& peer : report.peers)
        result.peers.push_back({peer.peerUserId, peer.verifiedBytes, peer.sentBytes});
    return result;
}

HeartbeatPayload restored(const KeptReport& report) {
    HeartbeatPayload payload;
    payload.userID = report.userID;
    payload.eventID = report.eventID;
    payload.infoHash = report.infoHash;
    payload.uploadMode = uploadModeFrom(report.uploadMode).value_or(UploadMode::paid);
    payload.uploadDelta = report.uploadDelta;
    payload.downloadDelta = report.downloadDelta;
    for (const KeptPeer& peer : report.peers) payload.peers.push_back({peer.user, peer.verified, peer.sent});
    return payload;
}

}  // namespace

asio::awaitable<void> HeartbeatOutbox::load() {
    std::string failure;
    try {
        const std::optional<std::string> text = co_await settings_.text(settingsKey);
        if (!text) co_return;
        for (const KeptReport& report : json::value_to<std::vector<KeptReport>>(json::parse(*text)))
            reports_.push_back(restored(report));
    } catch (const DatabaseException& error) {
        failure = error.what();
    } catch (const boost::system::system_error& error) {
        if (error.code() == asio::error::operation_aborted) throw;
        failure = error.what();
    }
    if (!failure.empty()) log_.warning("[Manager] reading the unconfirmed reports failed: ", failure);
}

asio::awaitable<void> HeartbeatOutbox::add(std::vector<HeartbeatPayload> reports) {
    if (reports.empty()) co_return;
    for (HeartbeatPayload& report : reports) {
        report.status = ResourceStatus::offline;  // nobody serves it for this report
        report.peerSnapshots.clear();
        reports_.push_back(std::move(report));
    }
    if (reports_.size() > maxReports)
        reports_.erase(reports_.begin(), reports_.end() - static_cast<std::ptrdiff_t>(maxReports));
    co_await save();
}

std::vector<HeartbeatPayload> HeartbeatOutbox::reportsOf(const std::string& userID) const {
    std::vector<HeartbeatPayload> reports;
    for (const HeartbeatPayload& report : reports_)
        if (report.userID == userID && reports.size() < maxReportsAtOnce) reports.push_back(report);
    return reports;
}

asio::awaitable<void> HeartbeatOutbox::remove(std::vector<HeartbeatPayload> confirmed) {
    const std::size_t removed = std::erase_if(reports_, [&](const HeartbeatPayload& report) {
        return std::any_of(confirmed.begin(), confirmed.end(),
                           [&](const HeartbeatPayload& other) { return other.eventID == report.eventID; });
    });
    if (removed > 0) co_await save();
}

/// One writer at a time, or an older list could be written last. Returns when what is there now is saved.
asio::awaitable<void> HeartbeatOutbox::save() {
    hasChanged_ = true;
    while (isSaving_) co_await saved_.wait();
    if (!hasChanged_) co_return;
    isSaving_ = true;
    try {
        while (std::exchange(hasChanged_, false)) co_await write();
    } catch (...) {
        hasChanged_ = true;
        isSaving_ = false;
        saved_.notify();
        throw;
    }
    isSaving_ = false;
    saved_.notify();
}

asio::awaitable<void> HeartbeatOutbox::write() {
    std::vector<KeptReport> reports;
    reports.reserve(reports_.size());
    for (const HeartbeatPayload& report : reports_) reports.push_back(kept(report));
    SettingValue text = plainJSON(json::value_from(reports));
    std::string failure;
    try {
        if (reports.empty()) {
            co_await settings_.unset(settingsKey);
        } else {
            co_await settings_.set(settingsKey, std::move(text));
        }
    } catch (const DatabaseException& error) {
        failure = error.what();
    }
    if (!failure.empty()) log_.warning("[Manager] keeping the unconfirmed reports failed: ", failure);
}

}  // namespace skein
