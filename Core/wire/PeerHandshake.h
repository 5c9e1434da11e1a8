#pragma once

#include "public/common/Bytes.h"
#include "public/common/SHA1.h"

#include <array>
#include <optional>
#include <string>

namespace skein {

using PeerID = std::array<std::uint8_t, 20>;

/// The 68 bytes with which both sides open a conversation. Source: BEP 3; the extension bit: BEP 10.
struct PeerHandshake {
    static constexpr std::size_t size = 68;
    using Encoded = std::array<std::uint8_t, size>;

    SHA1Digest infoHash{};
    PeerID peerID{};
    bool supportsExtended = true;

    Encoded encode() const;
    /// The bytes with which every handshake begins.
    static Bytes opening();
    /// What is wrong with the first 20 bytes, as the log line says it; nothing when they open a handshake.
    static std::optional<std::string> faultOf(ByteView bytes);
    /// `bytes` are `size` bytes without a fault.
    static PeerHandshake decode(ByteView bytes);
};

}  // namespace skein
