#pragma once

#include "Core/engine/TorrentSession.h"
#include "Core/wire/PeerAddress.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace skein {

/// The options that `get` and `seed` share, as given on the command line.
struct TransferOptions {
    std::filesystem::path folder;
    std::uint16_t port = 6881;
    std::string bindAddress;
    std::vector<std::string> peers;
    std::vector<std::string> trackers;
    bool noTrackers = false;
    bool noOtherSources = false;
    std::string encryption = "plaintext";
    std::string transport = "any";
    std::string downloadLimit = "0";
    std::string uploadLimit = "0";
    std::size_t maxConnections = TorrentSession::defaultMaxConnections;
    bool allowsLocalPeers = false;
    bool isJSON = false;

    void declare(CLI::App& options);
    /// What a session needs of them; `fallbackTrackers` come from the settings.
    TorrentSession::Options sessionOptions(const std::filesystem::path& savePath,
                                           std::vector<std::string> fallbackTrackers) const;
};

}  // namespace skein
