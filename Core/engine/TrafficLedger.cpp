#include "Core/engine/TrafficLedger.h"

#include <utility>

namespace skein {

void TrafficLedger::setParty(PeerKey peer, Party party) { accounts_[peer].party = std::move(party); }

void TrafficLedger::removePeer(PeerKey peer) {
    const auto found = accounts_.find(peer);
    if (found == accounts_.end()) return;
    found->second.hasLeft = true;
    // What nobody is told of needs no name.
    if (found->second.party.userID.empty()) accounts_.erase(found);
}

std::int64_t& TrafficLedger::sourceIn(BytesBySource& bytes, LinkKind link) noexcept {
    switch (link) {
        case LinkKind::platform: return bytes.platform;
        case LinkKind::relay: return bytes.relay;
        case LinkKind::publicBT: break;
    }
    return bytes.publicBT;
}

void TrafficLedger::addReceived(PeerKey peer, std::int64_t bytes) {
    const auto found = accounts_.find(peer);
    const LinkKind link = found == accounts_.end() ? LinkKind::publicBT : found->second.party.link;
    sourceIn(received_, link) += bytes;
    sourceIn(svcUncommitted_, link) += bytes;
}

void TrafficLedger::addVerified(PeerKey supplier, std::int64_t bytes) {
    svcVerifiedDownloadBytes_ += bytes;
    if (const auto found = accounts_.find(supplier); found != accounts_.end()) found->second.downloaded += bytes;
}

void TrafficLedger::addSent(PeerKey peer, std::int64_t bytes) {
    uploaded_ += bytes;
    if (const auto found = accounts_.find(peer); found != accounts_.end()) found->second.uploaded += bytes;
}

HeartbeatPayload TrafficLedger::drain(const Heading& heading) {
    if (reported_) return *reported_;
    HeartbeatPayload payload;
    payload.userID = heading.userID;
    payload.eventID = heading.eventID;
    payload.infoHash = heading.infoHash;
    payload.status = heading.status;
    payload.uploadMode = heading.uploadMode;
    payload.uploadDelta = uploaded_ - svcLastUploadBytes_;
    payload.downloadDelta = svcVerifiedDownloadBytes_ - svcLastVerifiedDownloadBytes_;
    payload.rawDownloadDelta = svcUncommitted_.sum();
    payload.downloadedBySource = svcUncommitted_;
    std::map<std::string, PeerReport> reports;
    for (const auto& [peer, account] : accounts_) {
        payload.peerSnapshots.push_back({peer, account.downloaded, account.uploaded});
        const std::int64_t charged = account.party.hasFreeAccounting ? 0 : account.uploaded;
        if (account.party.userID.empty() || (account.downloaded == 0 && charged == 0)) continue;
        PeerReport& report = reports[account.party.userID];
        report.verifiedBytes += account.downloaded;
        report.sentBytes += charged;
    }
    for (auto& [userID, report] : reports) {
        report.peerUserId = userID;
        payload.peers.push_back(std::move(report));
    }
    reported_ = payload;
    return payload;
}

bool TrafficLedger::commit(const HeartbeatPayload& payload) {
    if (!reported_ || reported_->eventID != payload.eventID) return false;
    svcLastUploadBytes_ += reported_->uploadDelta;
    svcLastVerifiedDownloadBytes_ += reported_->downloadDelta;
    svcUncommitted_ -= reported_->downloadedBySource;
    for (const PeerTrafficSnapshot& snapshot : reported_->peerSnapshots) {
        const auto found = accounts_.find(static_cast<PeerKey>(snapshot.conn));
        if (found == accounts_.end()) continue;
        Account& account = found->second;
        account.downloaded -= snapshot.downloaded;
        account.uploaded -= snapshot.uploaded;
        if (account.hasLeft && account.downloaded == 0 && account.uploaded == 0) accounts_.erase(found);
    }
    reported_.reset();
    return true;
}

void TrafficLedger::forget() {
    reported_.reset();
    svcLastUploadBytes_ = uploaded_;
    svcLastVerifiedDownloadBytes_ = svcVerifiedDownloadBytes_;
    svcUncommitted_ = {};
    std::erase_if(accounts_, [](const auto& entry) { return entry.second.hasLeft; });
    for (auto& [peer, account] : accounts_) account.downloaded = account.uploaded = 0;
}

}  // namespace skein
