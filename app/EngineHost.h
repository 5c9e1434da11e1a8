#pragma once

#include "Core/discovery/DatagramConnection.h"
#include "Core/engine/TorrentSession.h"
#include "Core/wire/PeerListener.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/HTTPClient.h"
#include "public/common/NameResolver.h"
#include "public/common/Random.h"
#include "public/common/SettingsStore.h"
#include "public/common/ThreadPools.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// What every session of the process shares: pools, clock, log, settings, HTTP, the listening port.
///
/// Owner and thread: the command, on the main thread. Sessions are stopped before the host goes.
class EngineHost {
public:
    /// Creates the home where it is missing. Throws CommandFailure.
    EngineHost(const std::filesystem::path& home, std::string bindAddress);
    EngineHost(const EngineHost&) = delete;
    EngineHost& operator=(const EngineHost&) = delete;
    ~EngineHost();

    /// Opens the listening port. Throws CommandFailure.
    void listen(std::uint16_t port);
    TorrentSession::Services services();

    ThreadPools& pools() noexcept { return pools_; }
    Clock& clock() noexcept { return clock_; }
    FileLogger& log() noexcept { return log_; }
    HTTPClient& http() noexcept { return http_; }
    Random& random() noexcept { return random_; }
    PeerListener& listener() noexcept { return listener_; }

    /// The user's download folder: the setting `customDownloadDirectory`, else ~/Downloads, else here.
    std::filesystem::path downloadFolder();
    /// The setting `fallbackTrackers`, else the built-in ones.
    std::vector<std::string> fallbackTrackers();

private:
    std::optional<std::string> setting(std::string_view key);

    FileLogger log_;
    SettingsStore settings_;
    RealClock clock_;
    SecureRandom random_;
    SystemDatagrams datagrams_;
    ThreadPools pools_;
    SystemNameResolver resolver_;
    HTTPClient http_;
    PeerListener listener_;
};

}  // namespace skein
