#pragma once

#include "Core/discovery/DHTNode.h"
#include "Core/discovery/DatagramConnection.h"
#include "Core/engine/TorrentSession.h"
#include "public/common/HTTPClient.h"
#include "public/common/NameResolver.h"
#include "public/common/Random.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

namespace skein {

/// An engine on real loopback sockets, on the simulation's one thread and in its time: its own port, its own session.
class TestSession {
public:
    using Kind = TorrentSession::State::Kind;

    /// Local discovery is off: it would reach beyond the test. With a bootstrap node the session has a DHT node.
    TestSession(Simulation& simulation, const SHA1Digest& infoHash, char peerID, TorrentSession::Options options,
                const asio::any_io_executor& disk, const std::optional<PeerAddress>& bootstrapNode = {},
                const LocalBinding& binding = {});
    TestSession(const TestSession&) = delete;
    TestSession& operator=(const TestSession&) = delete;
    ~TestSession();

    void start(const Bytes& torrentData) { simulation_.finish(session().start(torrentData)); }
    /// Does not wait for the metadata.
    void startMagnet(const MagnetLink& magnet) { simulation_.start(session().startWithMagnet(magnet)); }
    void stop();
    TorrentSession& session() { return *session_; }
    PeerAddress address() const { return {"127.0.0.1", listener_->port()}; }

    Kind state() const { return states.empty() ? Kind::idle : states.back(); }
    bool hasLogged(std::string_view text) const { return countLogged(text) > 0; }
    std::ptrdiff_t countLogged(std::string_view text) const { return log_.count(text); }
    bool hasStatus(std::string_view text) const {
        return std::find(statuses.begin(), statuses.end(), text) != statuses.end();
    }

    std::vector<Kind> states;
    std::vector<std::string> statuses;
    std::vector<PeerRuntimeInfo> peers;
    std::vector<TrackerRuntimeInfo> trackers;
    TorrentSession::Progress progress;
    std::optional<StallReason> stall;

private:
    void listen(const std::optional<PeerAddress>& bootstrapNode);

    Simulation& simulation_;
    RecordingLogger log_{LogLevel::debug};
    SecureRandom random_;
    const LocalBinding binding_;
    SystemDatagrams datagrams_{binding_};
    SystemNameResolver resolver_{binding_};
    HTTPClient http_{HTTPClient::Options{.binding = binding_}};
    std::unique_ptr<PeerListener> listener_;
    std::unique_ptr<DHTNode> dht_;
    std::unique_ptr<TorrentSession> session_;
};

}  // namespace skein
