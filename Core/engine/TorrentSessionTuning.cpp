// What of a session changes while it runs.

#include "Core/engine/ResourceTexts.h"
#include "Core/engine/TorrentSession.h"

#include <utility>

namespace skein {

SessionTuning TorrentSession::Options::tuning() const {
    return {uploadMode, cacheSites, discovery.fallbackTrackers, discovery.manualLANPeers, discovery.scansLAN};
}

asio::awaitable<void> TorrentSession::retune(SessionTuning tuning) {
    return tasks_.call(applyTuning(std::move(tuning)));
}

asio::awaitable<void> TorrentSession::applyTuning(SessionTuning tuning) {
    options_.cacheSites = tuning.cacheSites;
    options_.discovery.fallbackTrackers = tuning.fallbackTrackers;
    options_.discovery.manualLANPeers = tuning.manualLANPeers;
    options_.discovery.scansLAN = tuning.scansLAN;
    if (discovery_) discovery_->retune(tuning);
    if (std::exchange(options_.uploadMode, tuning.uploadMode) == tuning.uploadMode) co_return;
    services_.log.info("[Session] Upload mode is now ", textOf(tuning.uploadMode));
    if (exchange_) exchange_->setServing(tuning.uploadMode != UploadMode::disabled);
    if (service_) service_->setUploadMode(tuning.uploadMode);
}

}  // namespace skein
