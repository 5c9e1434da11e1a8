#pragma once

#include "Core/discovery/DatagramConnection.h"
#include "downloads/DownloadManager.h"
#include "public/common/HTTPClient.h"
#include "public/common/NameResolver.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/ScriptedPeer.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace skein {

/// Keeps the names.
class RecordingNotifier final : public CompletionNotifier {
public:
    void sendCompletionNotification(std::string name) override { names.push_back(std::move(name)); }
    std::vector<std::string> names;
};

/// A daemon's inside: a manager with all that it needs, whose sessions keep to loopback, on the simulation's one thread
/// and in its time.
class ManagerHost {
public:
    /// `name` is the letter of its peer id.
    explicit ManagerHost(Simulation& time, char name = 'm', LogLevel least = LogLevel::info)
        : simulation(time), log(least), name_(name) {
        simulation.finish(listener.start(0));
    }
    ManagerHost(const ManagerHost&) = delete;
    ManagerHost& operator=(const ManagerHost&) = delete;
    ~ManagerHost() {
        close();
        simulation.finish(listener.stop());
        http.stop();
    }

    /// Makes a manager and starts it; anew after `close`.
    DownloadManager& open() {
        const asio::any_io_executor executor = simulation.executor();
        DownloadManager::Environment environment{
            executor, executor, simulation, log,        random,        center, ActorSettings(settings, executor),
            claims,   *service, notifier,   homeFolder, downloadFolder};
        environment.makers.torrent = [this](const SHA1Digest& hash, const SessionWishes& wishes) {
            return makeTorrentSession(hash, wishes);
        };
        environment.makers.http = [this](const std::string& url, const std::filesystem::path& folder,
                                         const std::optional<std::string>& fileName) {
            const HTTPDownloadSession::Environment shared{
                simulation.executor(), simulation.executor(), simulation, random, log, http, homeFolder / "resume"};
            return std::make_unique<HTTPDownloadSession>(shared, url, folder, fileName);
        };
        environment.listenPort = listener.port();
        manager = std::make_unique<DownloadManager>(std::move(environment));
        simulation.finish(manager->start());
        return *manager;
    }
    void close() {
        if (manager) simulation.finish(manager->stop());
        manager.reset();
    }

    Simulation& simulation;
    RecordingLogger log;
    SecureRandom random;
    SystemDatagrams datagrams;
    SystemNameResolver resolver;
    HTTPClient http;
    MsgCenter center;
    RecordingNotifier notifier;
    TemporaryFolder home;
    TemporaryFolder downloads;
    SettingsStore settings{home.path() / "settings.db", log};
    FileClaims claims{home.path() / "claims.db", log};
    PeerListener listener{simulation.executor(), simulation, log, LocalBinding("127.0.0.1")};
    std::unique_ptr<DownloadManager> manager;

    // For the next `open`, or the next session.
    std::filesystem::path homeFolder = home.path();
    std::filesystem::path downloadFolder = downloads.path();
    NoResourceService noService;
    ResourceService* service = &noService;
    ResourceGateway* resources = nullptr;
    TorrentSession::Options sessionOptions;  ///< as far as the manager says nothing else

private:
    std::unique_ptr<TorrentSession> makeTorrentSession(const SHA1Digest& hash, const SessionWishes& wishes) {
        const TrackerServices trackers{http, resolver, datagrams, simulation, random, log};
        TorrentSession::Services services{
            simulation.executor(), simulation.executor(), simulation, log, trackers, listener};
        services.resources = resources;
        services.claims = &claims;
        TorrentSession::Options options = sessionOptions;
        options.savePath = wishes.place.folder;
        options.topName = wishes.place.topName;
        options.movesAside = wishes.place.movesAside;
        options.isListed = true;
        options.discovery.usesLSD = false;
        options.archive.emplace(homeFolder);
        options.seedsOnly = wishes.seedsOnly;
        options.accelerates = wishes.accelerates;
        return std::make_unique<TorrentSession>(hash, peerIDOf(name_), services, std::move(options));
    }

    const char name_;
};

}  // namespace skein
