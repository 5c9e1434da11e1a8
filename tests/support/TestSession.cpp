#include "tests/support/TestSession.h"

#include "tests/support/ScriptedPeer.h"

#include <boost/system/system_error.hpp>

namespace skein {

TestSession::TestSession(Simulation& simulation, const SHA1Digest& infoHash, char peerID,
                         TorrentSession::Options options, const asio::any_io_executor& disk,
                         const std::optional<PeerAddress>& bootstrapNode, const LocalBinding& binding)
    : simulation_(simulation), binding_(binding) {
    listen(bootstrapNode);
    const TrackerServices trackerServices{http_, resolver_, datagrams_, simulation, random_, log_};
    TorrentSession::Services services{simulation.executor(), disk,       simulation, log_,
                                      trackerServices,       *listener_, dht_.get()};
    services.binding = binding_;
    options.discovery.usesLSD = false;
    session_ = std::make_unique<TorrentSession>(infoHash, peerIDOf(peerID), services, std::move(options));
    TorrentSession::Callbacks callbacks;
    callbacks.onStateChanged = [this](const TorrentSession::State& state) { states.push_back(state.kind); };
    callbacks.onStatusMessage = [this](const std::string& text) { statuses.push_back(text); };
    callbacks.onProgressUpdated = [this](const TorrentSession::Progress& now) { progress = now; };
    callbacks.onPeerDetailsUpdated = [this](const std::vector<PeerRuntimeInfo>& rows) { peers = rows; };
    callbacks.onTrackerDetailsUpdated = [this](const std::vector<TrackerRuntimeInfo>& rows) { trackers = rows; };
    callbacks.onStallChanged = [this](const std::optional<StallReason>& reason) { stall = reason; };
    session_->setCallbacks(std::move(callbacks));
}

/// The DHT needs the listener's number, which another program may have for UDP: then both take another one.
void TestSession::listen(const std::optional<PeerAddress>& bootstrapNode) {
    for (;;) {
        listener_ = std::make_unique<PeerListener>(simulation_.executor(), simulation_, log_,
                                                   binding_.isRestricted() ? binding_ : LocalBinding("127.0.0.1"));
        simulation_.finish(listener_->start(0));
        if (!bootstrapNode) return;
        const DHTNode::Environment environment{simulation_.executor(), simulation_, log_, random_, resolver_};
        DHTNode::Options options{LocalBinding("127.0.0.1"), listener_->port(), {*bootstrapNode}};
        dht_ = std::make_unique<DHTNode>(environment, std::move(options));
        try {
            return simulation_.finish(dht_->startListening());
        } catch (const boost::system::system_error&) {
            simulation_.finish(dht_->stop());
            simulation_.finish(listener_->stop());
        }
    }
}

TestSession::~TestSession() { stop(); }

void TestSession::stop() {
    if (!session_) return;
    simulation_.finish(session_->stop());
    session_.reset();
    if (dht_) simulation_.finish(dht_->stop());
    simulation_.finish(listener_->stop());
    http_.stop();
}

}  // namespace skein
