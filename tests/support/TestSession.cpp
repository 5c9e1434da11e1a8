#include "tests/support/TestSession.h"

#include "tests/support/ScriptedPeer.h"

namespace skein {

TestSession::TestSession(Simulation& simulation, const SHA1Digest& infoHash, char peerID,
                         TorrentSession::Options options, const asio::any_io_executor& disk,
                         const std::optional<PeerAddress>& bootstrapNode)
    : simulation_(simulation), listener_(simulation.executor(), simulation, log_, "127.0.0.1") {
    simulation_.finish(listener_.start(0));
    const TrackerServices trackerServices{http_, resolver_, datagrams_, simulation, random_, log_};
    if (bootstrapNode) {
        const DHTNode::Environment environment{simulation.executor(), simulation, log_, random_, resolver_};
        DHTNode::Options dhtOptions{"127.0.0.1", listener_.port(), {*bootstrapNode}};
        dht_ = std::make_unique<DHTNode>(environment, std::move(dhtOptions));
        simulation_.finish(dht_->startListening());
    }
    const TorrentSession::Services services{simulation.executor(), disk,      simulation, log_,
                                            trackerServices,       listener_, dht_.get()};
    options.discovery.usesLSD = false;
    session_ = std::make_unique<TorrentSession>(infoHash, peerIDOf(peerID), services, std::move(options));
    TorrentSession::Callbacks callbacks;
    callbacks.onStateChanged = [this](const TorrentSession::State& state) { states.push_back(state.kind); };
    callbacks.onStatusMessage = [this](const std::string& text) { statuses.push_back(text); };
    callbacks.onProgressUpdated = [this](const TorrentSession::Progress& now) { progress = now; };
    callbacks.onPeerDetailsUpdated = [this](const std::vector<PeerRuntimeInfo>& rows) { peers = rows; };
    callbacks.onTrackerDetailsUpdated = [this](const std::vector<TrackerRuntimeInfo>& rows) { trackers = rows; };
    session_->setCallbacks(std::move(callbacks));
}

TestSession::~TestSession() { stop(); }

void TestSession::stop() {
    if (!session_) return;
    simulation_.finish(session_->stop());
    session_.reset();
    if (dht_) simulation_.finish(dht_->stop());
    simulation_.finish(listener_.stop());
    http_.stop();
}

std::ptrdiff_t TestSession::countLogged(std::string_view text) const {
    const auto lines = log_.lines();
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

}  // namespace skein
