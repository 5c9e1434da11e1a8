#include "app/ManagerHost.h"

#include "public/common/RunOn.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

#include <algorithm>

namespace skein {

ManagerHost::ManagerHost(EngineHost& host, const TransferOptions& options)
    : host_(host),
      options_(options),
      settings_(host.liveSettings()),
      client_(host.http(), host.account(), host.clock(), host.log()),
      service_(client_),
      chat_(host, center_),
      notifier_(host.pools().io(), host.pools().disk(), host.clock(), host.log()),
      manager_(std::make_unique<DownloadManager>(environment())) {
    applyRates();
    asio::co_spawn(host_.pools().io(), manager_->start(), asio::use_future).get();
    chat_.accountChanged();
    settingsWatch_ = std::make_unique<SettingsWatch>(
        manager_->strand(), host_.settings(), host_.clock(), host_.log(),
        [this](std::vector<std::string> keys) { return onSettingsChanged(std::move(keys)); });
    settingsWatch_->start();
}

ManagerHost::~ManagerHost() {
    asio::co_spawn(host_.pools().io(), settingsWatch_->stop(), asio::use_future).get();
    asio::co_spawn(host_.pools().io(), manager_->stop(), asio::use_future).get();
    asio::co_spawn(host_.pools().io(), notifier_.stop(), asio::use_future).get();
}

/// What stands on the command line goes before the settings.
std::filesystem::path ManagerHost::downloadFolder() const {
    return options_.folder.empty() ? settings_.downloadFolder : options_.folder;
}

void ManagerHost::applyRates() {
    host_.rates().download.setLimit(settings_.downloadLimit);
    host_.rates().upload.setLimit(settings_.uploadLimit);
}

asio::awaitable<void> ManagerHost::onSettingsChanged(std::vector<std::string> keys) {
    auto read = [this] { return host_.liveSettings(); };
    settings_ = co_await runOn(host_.pools().disk(), std::move(read));
    host_.log().setLeast(settings_.logLevel);
    for (const std::string& key : keys) host_.log().info("[Settings] ", key, " is read again");
    applyRates();
    if (std::find(keys.begin(), keys.end(), ChatHost::serverKey) != keys.end()) chat_.accountChanged();
    DownloadManager::Tuning tuning;
    tuning.downloadsDirectory = downloadFolder();
    tuning.memoryLimitMB = settings_.memoryLimitMB;
    tuning.sessions = options_.sessionOptions({}, settings_.sessions).tuning();
    co_await manager_->retune(std::move(tuning));
}

DownloadManager::Environment ManagerHost::environment() {
    DownloadManager::Environment environment{
        host_.pools().io(),     host_.pools().disk(), host_.clock(), host_.log(), host_.random(), center_,
        host_.settings(),       host_.claims(),       service_,      notifier_,   host_.home(),   downloadFolder(),
        settings_.memoryLimitMB};
    environment.makers.torrent = [this](const SHA1Digest& infoHash, const SessionWishes& wishes) {
        TorrentSession::Options options = options_.sessionOptions(wishes.place.folder, settings_.sessions);
        options.discovery.linkTrackers = wishes.linkTrackers;
        options.accelerates = wishes.accelerates;
        options.seedsOnly = wishes.seedsOnly;
        options.isListed = true;
        options.topName = wishes.place.topName;
        options.movesAside = wishes.place.movesAside;
        TorrentSession::Services services = host_.services();
        services.resources = &client_;
        return std::make_unique<TorrentSession>(infoHash, MagnetLink::generatePeerID(host_.random()), services,
                                                std::move(options));
    };
    environment.makers.http = [this](const std::string& url, const std::filesystem::path& saveTo,
                                     const std::optional<std::string>& fileName) {
        return host_.makeHTTPSession(url, saveTo, fileName);
    };
    environment.uploadMode = settings_.sessions.uploadMode;
    environment.listenPort = host_.listener().port();
    environment.binding = host_.wayOut().binding;
    environment.onAccelerate = [this](const TorrentTask& task) {
        chat_.askForAcceleration({task.name(), {}, task.magnetURI.value_or(""), task.totalSize()});
    };
    environment.makers.httpDownloadLimit = options_.downloadBytesPerSecond();
    return environment;
}

}  // namespace skein
