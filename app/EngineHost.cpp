#include "app/EngineHost.h"

#include "Core/discovery/LANPeerSettingsStore.h"
#include "Core/engine/CacheSites.h"
#include "Core/engine/FallbackTrackers.h"
#include "Core/engine/ResourceTexts.h"
#include "app/Command.h"
#include "app/PortChoice.h"
#include "app/Quantities.h"
#include "public/common/ErrorText.h"
#include "public/common/FatalFault.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <unistd.h>

namespace skein {

namespace {

namespace fs = std::filesystem;

/// UDP trackers that are asked at once, over all torrents.
constexpr std::size_t udpTrackersAtOnce = 64;

/// One that is missing may be on a disk that is not mounted: making it would fill the disk below.
bool isUsableFolder(const fs::path& folder) {
    std::error_code error;
    return folder.is_absolute() && fs::is_directory(folder, error) && ::access(folder.c_str(), W_OK | X_OK) == 0;
}

}  // namespace

EngineHost::EngineHost(const fs::path& home, LocalBinding binding)
    : home_(home),
      binding_(std::move(binding)),
      log_(home / "logs" / "skein.log", LogLevel::info),
      settings_(home / "settings.db", log_),
      claims_(home / "claims.db", log_),
      datagrams_(binding_),
      resolver_(binding_),
      udpTrackers_(pools_.io(), udpTrackersAtOnce),
      http_(HTTPClient::Options{.binding = binding_}),
      listener_(pools_.io(), clock_, log_, binding_),
      history_(pools_.io(), ActorSettings(settings_, pools_.disk()), clock_, log_),
      lsd_(pools_.io(), clock_, log_, binding_) {
    log_.setLeast(logLevel());
    if (const std::size_t count = home_.narrowedCount(); count > 0)
        log_.warning("[Home] Others had access to ", count, " file(s) or folder(s) of ", home.string(),
                     ", which are now for their owner alone");
    // What one remote peer sends must not end the program, unless the user wants exactly that.
    if (!flagSetting("skein.stopOnFatalFault", false)) setFatalFaultHandler(throwOnFatalFault);
}

EngineHost::~EngineHost() {
    asio::co_spawn(pools_.io(), listener_.stop(), asio::use_future).get();
    if (dht_) asio::co_spawn(pools_.io(), dht_->stop(), asio::use_future).get();
    asio::co_spawn(pools_.io(), lsd_.stop(), asio::use_future).get();
    asio::co_spawn(pools_.io(), history_.stop(), asio::use_future).get();
    http_.stop();
}

void EngineHost::listen(std::uint16_t port, const DHTOptions& dht) {
    const std::uint16_t chosen = dht.isUsed || binding_.isGone() ? choosePort(binding_, port) : port;
    try {
        asio::co_spawn(pools_.io(), listener_.start(chosen), asio::use_future).get();
    } catch (const std::exception& error) {
        log_.error("[Session] Failed to start TCP listener: ", textOf(error));
        throw CommandFailure("listening on port " + std::to_string(port), textOf(error));
    }
    if (dht.isUsed) startDHT(listener_.port(), dht);
}

/// Without the DHT there are still other ways to find peers: its failure is logged, no more.
void EngineHost::startDHT(std::uint16_t port, const DHTOptions& options) {
    DHTNode::Options nodeOptions;
    nodeOptions.binding = binding_;
    nodeOptions.port = port;
    if (!options.bootstrapNodes.empty()) {
        nodeOptions.bootstrapNodes = options.bootstrapNodes;
    } else if (auto nodes = addressesSetting("dhtBootstrapNodes"); !nodes.empty()) {
        nodeOptions.bootstrapNodes = std::move(nodes);
    }
    const DHTNode::Environment environment{pools_.io(), clock_, log_, random_, resolver_};
    dht_ = std::make_unique<DHTNode>(environment, std::move(nodeOptions));
    try {
        asio::co_spawn(pools_.io(), dht_->startListening(), asio::use_future).get();
    } catch (const std::exception& error) {
        log_.warning("[Session] DHT start failed: ", textOf(error));
        dht_.reset();
    }
}

TorrentSession::Services EngineHost::services() {
    TorrentSession::Services services{
        pools_.io(),
        pools_.disk(),
        clock_,
        log_,
        TrackerServices{http_, resolver_, datagrams_, clock_, random_, log_, udpTrackers_},
        listener_,
        dht_.get(),
        &history_};
    services.lsd = &lsd_;
    services.claims = &claims_;
    services.binding = binding_;
    services.descriptors = descriptors_;
    services.rates = &rates_;
    return services;
}

std::unique_ptr<HTTPDownloadSession> EngineHost::makeHTTPSession(const std::string& url, const fs::path& folder,
                                                                 const std::optional<std::string>& fileName) {
    const HTTPDownloadSession::Environment environment{pools_.io(), pools_.disk(),     clock_,          random_, log_,
                                                       http_,       home() / "resume", &rates_.download};
    return std::make_unique<HTTPDownloadSession>(environment, url, folder, fileName);
}

TorrentSession::Options EngineHost::sessionDefaults() {
    TorrentSession::Options options;
    options.servesMetadata = flagSetting("skein.serveMetadata", true);
    options.cacheSites = listSetting("torrentCacheSites").value_or(CacheSites::torrentCacheSites);
    if (const std::int64_t rounds = numberSetting("skein.magnetRounds"); rounds > 0)
        options.maxMagnetRounds = static_cast<int>(std::min<std::int64_t>(rounds, 1'000'000));
    options.archive = archive();
    options.uploadMode = uploadModeFrom(setting("uploadMode").value_or("")).value_or(UploadMode::paid);
    options.discovery.fallbackTrackers = listSetting("fallbackTrackers").value_or(builtInFallbackTrackers());
    options.discovery.manualLANPeers = addressesSetting(LANPeerSettingsStore::manualPeersKey);
    options.discovery.scansLAN = flagSetting(LANPeerSettingsStore::portScanKey, false);
    return options;
}

LiveSettings EngineHost::liveSettings() {
    LiveSettings settings;
    settings.sessions = sessionDefaults();
    settings.downloadFolder = downloadFolder();
    settings.memoryLimitMB = numberSetting("memoryLimitMB");
    settings.downloadLimit = rateSetting("skein.downloadLimit");
    settings.uploadLimit = rateSetting("skein.uploadLimit");
    settings.logLevel = logLevel();
    return settings;
}

LogLevel EngineHost::logLevel() {
    return logLevelFrom(setting("skein.logLevel").value_or("")).value_or(LogLevel::info);
}

std::int64_t EngineHost::rateSetting(std::string_view key) {
    return parseByteCount(setting(key).value_or("")).value_or(0);
}

/// 0 when it is not set, or cannot be read.
std::int64_t EngineHost::numberSetting(std::string_view key) {
    try {
        return settings_.number(key).value_or(0);
    } catch (const DatabaseException& error) {
        log_.warning("[Manager] reading the setting ", key, " failed: ", error.what());
        return 0;
    }
}

std::optional<std::string> EngineHost::setting(std::string_view key) {
    try {
        return settings_.text(key);
    } catch (const DatabaseException& error) {
        log_.warning("[Manager] reading the setting ", key, " failed: ", error.what());
        return std::nullopt;
    }
}

fs::path EngineHost::downloadFolder() {
    if (const auto custom = setting("customDownloadDirectory"); custom && !custom->empty()) {
        if (isUsableFolder(*custom)) return *custom;
        log_.warning("[Manager] the download folder of the settings cannot be used: ", *custom);
    }
    const char* const user = std::getenv("HOME");
    const fs::path downloads = user == nullptr ? fs::path() : fs::path(user) / "Downloads";
    std::error_code error;
    return fs::is_directory(downloads, error) ? downloads : fs::current_path();
}

std::optional<std::vector<std::string>> EngineHost::listSetting(std::string_view key) {
    const auto listed = setting(key);
    if (!listed) return std::nullopt;
    std::vector<std::string> elements;
    std::istringstream text(*listed);
    for (std::string element; std::getline(text, element, ',');)
        if (!element.empty()) elements.push_back(element);
    return elements;
}

std::vector<PeerAddress> EngineHost::addressesSetting(std::string_view key) {
    std::vector<PeerAddress> addresses;
    for (const std::string& text : listSetting(key).value_or(std::vector<std::string>())) {
        if (auto address = PeerAddress::parse(text)) {
            addresses.push_back(std::move(*address));
        } else {
            log_.warning("[Manager] the setting ", key, " names no HOST:PORT: ", text);
        }
    }
    return addresses;
}

bool EngineHost::flagSetting(std::string_view key, bool unset) {
    try {
        return settings_.flag(key).value_or(unset);
    } catch (const DatabaseException& error) {
        log_.warning("[Manager] reading the setting ", key, " failed: ", error.what());
        return unset;
    }
}

}  // namespace skein
