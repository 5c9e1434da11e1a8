#include "tests/support/TestSession.h"

#include "tests/support/ScriptedPeer.h"

namespace skein {

TestSession::TestSession(Simulation& simulation, const SHA1Digest& infoHash, char peerID,
                         TorrentSession::Options options, const asio::any_io_executor& disk)
    : simulation_(simulation), listener_(simulation.executor(), simulation, log_, "127.0.0.1") {
    simulation_.finish(listener_.start(0));
    const TrackerServices trackerServices{http_, resolver_, datagrams_, simulation, random_, log_};
    const TorrentSession::Services services{simulation.executor(), disk, simulation, log_, trackerServices, listener_};
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
    simulation_.finish(listener_.stop());
    http_.stop();
}

bool TestSession::hasLogged(std::string_view text) const {
    const auto lines = log_.lines();
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

}  // namespace skein
