#pragma once

#include "Core/wire/PeerAddress.h"
#include "public/common/ActorSettings.h"

#include <boost/asio/awaitable.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// The peers that a user wrote down: "HOST:PORT,…".
struct ManualLANPeers {
    std::vector<PeerAddress> peers;     ///< in the order given, none twice
    std::vector<std::string> unusable;  ///< what is no host and port

    static ManualLANPeers parse(std::string_view text);
};

/// What the user set about the local network. Cheap to copy. Thread: any; the settings are read off the `io` threads.
/// All operations throw DatabaseException.
class LANPeerSettingsStore {
public:
    static constexpr std::string_view manualPeersKey = "skein.manualLANPeers";
    static constexpr std::string_view portScanKey = "skein.lanPortScanEnabled";

    explicit LANPeerSettingsStore(ActorSettings settings) : settings_(std::move(settings)) {}

    asio::awaitable<ManualLANPeers> manualPeers() const;
    asio::awaitable<void> setManualPeers(std::vector<PeerAddress> peers) const;
    /// False unless the user allowed it: to a network's keeper a scan looks like an attack.
    asio::awaitable<bool> isPortScanEnabled() const;
    asio::awaitable<void> setPortScanEnabled(bool isEnabled) const;

private:
    ActorSettings settings_;
};

}  // namespace skein
