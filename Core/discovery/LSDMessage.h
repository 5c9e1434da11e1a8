#pragma once

#include "public/common/Bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// The announce of local service discovery, "BT-SEARCH". Source: BEP 14.
struct LSDMessage {
    static constexpr std::string_view multicastHost = "239.192.152.143";
    static constexpr std::uint16_t multicastPort = 6771;
    /// BEP 14 keeps announces below 1400 bytes; more of a datagram is not read.
    static constexpr std::size_t maxBytes = 2048;

    std::uint16_t port = 0;               ///< where the sender takes peer connections; 0 when it does not say
    std::vector<std::string> infoHashes;  ///< 40 upper-case hex digits; BEP 14 allows several in one announce
    std::string peerID;                   ///< in the form of `peerIDText`; most senders give none
    std::string cookie;                   ///< tells the sender its own announce

    /// The datagram.
    std::string text() const;
    /// Nothing unless `datagram` begins with "BT-SEARCH". What is missing in it or reads as nothing stays empty.
    static std::optional<LSDMessage> parse(std::string_view datagram);
    /// Letters, digits, "-", ".", "_" and "~" stand for themselves, other bytes are "%" and two hex digits: a peer
    /// id holds any bytes, line breaks too.
    static std::string peerIDText(ByteView peerID);

    friend bool operator==(const LSDMessage&, const LSDMessage&) = default;
};

}  // namespace skein
