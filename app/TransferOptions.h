#pragma once

#include "Core/engine/TorrentSession.h"
#include "Core/wire/PeerAddress.h"
#include "app/EngineHost.h"

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
    std::string bind;  ///< a local address, or an interface's name; empty: any
    std::vector<std::string> peers;
    std::vector<std::string> trackers;
    bool noTrackers = false;
    bool noDHT = false;
    bool noLSD = false;
    bool noPex = false;
    bool noCacheSites = false;
    bool noHistory = false;
    std::vector<std::string> dhtBootstrap;
    std::vector<std::string> cacheSites;
    std::string encryption = "plaintext";
    std::string transport = "any";
    std::string downloadLimit = "0";
    std::string uploadLimit = "0";
    std::size_t maxConnections = TorrentSession::defaultMaxConnections;
    bool allowsLocalPeers = false;
    bool isJSON = false;
    std::string output;  ///< the name of what is downloaded; empty: its own
    bool overwrites = false;

    void declare(CLI::App& options);
    /// What only a download takes: how its file or folder is called, and what becomes of one in its place.
    void declarePlace(CLI::App& options);
    /// `defaults` is what the settings say; what was given here comes before it.
    TorrentSession::Options sessionOptions(const std::filesystem::path& savePath,
                                           TorrentSession::Options defaults) const;
    EngineHost::DHTOptions dhtOptions() const;
    std::int64_t downloadBytesPerSecond() const;  ///< 0: no limit
};

}  // namespace skein
