#pragma once

#include "public/common/Random.h"
#include "public/common/SHA1.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

using PeerID = std::array<std::uint8_t, 20>;

/// What a magnet link says. Source: BEP 9, "magnet URI format"; web seeds: BEP 19.
struct MagnetLink {
    /// Opens every peer id of ours: client and version in the dash form of BEP 20.
    static constexpr std::string_view peerIDPrefix = "-QM0100-";

    SHA1Digest infoHash{};
    std::string infoHashHex;
    std::optional<std::string> displayName;
    std::vector<std::string> trackers;
    std::vector<std::string> webSeeds;

    /// A fresh id: the prefix, then 12 random bytes.
    static PeerID generatePeerID(Random& random);
};

}  // namespace skein
