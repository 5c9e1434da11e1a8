#pragma once

#include "Core/discovery/DHTNode.h"
#include "Core/discovery/DatagramConnection.h"
#include "Core/discovery/LSDPort.h"
#include "Core/discovery/PeerHistoryStore.h"
#include "Core/engine/FileClaims.h"
#include "Core/engine/TorrentSession.h"
#include "Core/wire/PeerListener.h"
#include "app/HomeFolder.h"
#include "app/LiveSettings.h"
#include "downloads/HTTPDownloadSession.h"
#include "public/common/Clock.h"
#include "public/common/DescriptorBudget.h"
#include "public/common/FileLogger.h"
#include "public/common/Gate.h"
#include "public/common/HTTPClient.h"
#include "public/common/NameResolver.h"
#include "public/common/Random.h"
#include "public/common/SettingsStore.h"
#include "public/common/SharedThrottle.h"
#include "public/common/ThreadPools.h"
#include "service/ServiceAccount.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// What every session of the process shares: pools, clock, log, settings, HTTP, the listening port, the DHT node, the
/// peers remembered from before.
///
/// Owner and thread: the command, on the main thread. Sessions are stopped before the host goes.
class EngineHost {
public:
    /// Creates the home where it is missing. Throws CommandFailure.
    EngineHost(const std::filesystem::path& home, LocalBinding binding = {});
    EngineHost(const EngineHost&) = delete;
    EngineHost& operator=(const EngineHost&) = delete;
    ~EngineHost();

    /// How the DHT is to be used.
    struct DHTOptions {
        bool isUsed = true;
        std::vector<PeerAddress> bootstrapNodes;  ///< empty: the setting `dhtBootstrapNodes`, else the built-in ones
    };

    /// Opens the listening port, and the DHT's of the same number. Throws CommandFailure.
    void listen(std::uint16_t port, const DHTOptions& dht);
    /// After `listen`.
    TorrentSession::Services services();
    std::unique_ptr<HTTPDownloadSession> makeHTTPSession(const std::string& url, const std::filesystem::path& folder,
                                                         const std::optional<std::string>& fileName = {});
    /// What the settings say of how a session works.
    TorrentSession::Options sessionDefaults();
    /// Reads all at once: not on an `io` thread.
    LiveSettings liveSettings();
    /// Of all sessions together. Unlimited unless somebody limits them.
    SharedRates& rates() noexcept { return rates_; }
    /// What is kept of torrents that were used before.
    TorrentArchive archive() const { return TorrentArchive(home()); }
    FileClaims& claims() noexcept { return claims_; }

    ThreadPools& pools() noexcept { return pools_; }
    Clock& clock() noexcept { return clock_; }
    FileLogger& log() noexcept { return log_; }
    HTTPClient& http() noexcept { return http_; }
    WayOut wayOut() { return {resolver_, binding_}; }
    NameResolver& resolver() noexcept { return resolver_; }
    Random& random() noexcept { return random_; }
    PeerListener& listener() noexcept { return listener_; }
    ActorSettings settings() { return {settings_, pools_.disk()}; }
    ServiceAccount account() { return {settings(), random_}; }
    const std::filesystem::path& home() const noexcept { return home_.path(); }
    /// 0 when the DHT does not run.
    std::uint16_t dhtPort() const noexcept { return dht_ ? dht_->port() : std::uint16_t{0}; }

    /// The user's download folder: the setting `customDownloadDirectory` if it names a folder that can be used,
    /// else ~/Downloads, else here.
    std::filesystem::path downloadFolder();

private:
    std::optional<std::string> setting(std::string_view key);
    /// A comma-separated list; nothing when it is not set.
    std::optional<std::vector<std::string>> listSetting(std::string_view key);
    std::vector<PeerAddress> addressesSetting(std::string_view key);
    std::int64_t numberSetting(std::string_view key);
    /// Bytes a second; 0 when it is not set.
    std::int64_t rateSetting(std::string_view key);
    LogLevel logLevel();
    bool flagSetting(std::string_view key, bool unset);
    void startDHT(std::uint16_t port, const DHTOptions& options);

    const HomeFolder home_;
    const LocalBinding binding_;
    FileLogger log_;
    SettingsStore settings_;
    FileClaims claims_;
    SharedRates rates_;
    RealClock clock_;
    SecureRandom random_;
    const DescriptorBudget descriptors_ = DescriptorBudget::ofProcess();
    SystemDatagrams datagrams_;
    ThreadPools pools_;
    SystemNameResolver resolver_;
    const Gate udpTrackers_;
    HTTPClient http_;
    PeerListener listener_;
    PeerHistoryStore history_;
    LSDPort lsd_;
    std::unique_ptr<DHTNode> dht_;
};

}  // namespace skein
