#include "app/ManagerHost.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

namespace skein {

ManagerHost::ManagerHost(EngineHost& host, const TransferOptions& options)
    : host_(host),
      options_(options),
      defaults_(host.sessionDefaults()),
      client_(host.http(), host.account(), host.clock(), host.log()),
      service_(client_),
      chat_(host, center_),
      notifier_(host.pools().io(), host.pools().disk(), host.clock(), host.log()),
      manager_(std::make_unique<DownloadManager>(environment())) {
    asio::co_spawn(host_.pools().io(), manager_->start(), asio::use_future).get();
    chat_.accountChanged();
}

ManagerHost::~ManagerHost() {
    asio::co_spawn(host_.pools().io(), manager_->stop(), asio::use_future).get();
    asio::co_spawn(host_.pools().io(), notifier_.stop(), asio::use_future).get();
}

DownloadManager::Environment ManagerHost::environment() {
    const std::filesystem::path folder = options_.folder.empty() ? host_.downloadFolder() : options_.folder;
    DownloadManager::Environment environment{
        host_.pools().io(),   host_.pools().disk(), host_.clock(), host_.log(), host_.random(), center_,
        host_.settings(),     host_.claims(),       service_,      notifier_,   host_.home(),   folder,
        host_.memoryLimitMB()};
    environment.makers.torrent = [this](const SHA1Digest& infoHash, const SessionWishes& wishes) {
        TorrentSession::Options options = options_.sessionOptions(wishes.folder, defaults_);
        options.discovery.linkTrackers = wishes.linkTrackers;
        options.accelerates = wishes.accelerates;
        options.seedsOnly = wishes.seedsOnly;
        options.isListed = true;
        TorrentSession::Services services = host_.services();
        services.resources = &client_;
        return std::make_unique<TorrentSession>(infoHash, MagnetLink::generatePeerID(host_.random()), services,
                                                std::move(options));
    };
    environment.makers.http = [this](const std::string& url, const std::filesystem::path& saveTo,
                                     const std::optional<std::string>& fileName) {
        return host_.makeHTTPSession(url, saveTo, fileName);
    };
    environment.uploadMode = defaults_.uploadMode;
    environment.onAccelerate = [this](const TorrentTask& task) {
        chat_.askForAcceleration({task.name(), {}, task.magnetURI.value_or(""), task.totalSize()});
    };
    environment.makers.httpDownloadLimit = options_.downloadBytesPerSecond();
    return environment;
}

}  // namespace skein
