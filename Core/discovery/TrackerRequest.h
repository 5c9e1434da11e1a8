#pragma once

#include "Core/discovery/TrackerAnnounce.h"
#include "Core/discovery/TrackerURL.h"
#include "public/common/Bytes.h"

#include <cstdint>
#include <string>

/// The bytes of announces. Source: BEP 3 and BEP 23 (HTTP), BEP 7 (IPv6), BEP 15 (UDP). Stateless; any thread.
namespace skein::TrackerRequest {

/// Letters, digits and "-_.~" as they are, every other byte as "%XX".
std::string percentEncode(ByteView bytes);

/// The URL to fetch.
std::string httpURL(const TrackerURL& tracker, const TrackerAnnounce& announce, ByteView peerID, std::uint16_t port);

/// 16 bytes.
Bytes udpConnect(std::uint32_t transaction);

struct UDPAnnounceNumbers {
    std::uint64_t connection = 0;  ///< from the tracker's answer to the connect request
    std::uint32_t transaction = 0;
    std::uint32_t key = 0;
};
/// 98 bytes. `peerID` has 20.
Bytes udpAnnounce(const UDPAnnounceNumbers& numbers, const TrackerAnnounce& announce, ByteView peerID,
                  std::uint16_t port);

}  // namespace skein::TrackerRequest
