#pragma once

#include "Core/discovery/IPv4Interface.h"
#include "public/common/LocalBinding.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace skein {

/// Where a scan of the local network looks: every port of every host.
struct LANScanTargets {
    static constexpr std::uint16_t firstPort = 6881;  ///< BEP 3 names 6881 to 6889
    static constexpr std::uint16_t lastPort = 6889;
    /// Four networks of 254: a machine full of virtual ones would scan for minutes.
    static constexpr std::size_t maxHosts = 1016;

    std::vector<std::string> hosts;    ///< dotted addresses, none twice, none of ours
    std::vector<std::uint16_t> ports;  ///< the well-known ones, and `ownPort`, which others may have chosen alike

    /// The networks of the `interfaces` that have a private (RFC 1918) or link-local address; of a network larger than
    /// a /24 only the /24 around us. Only of the interface that `binding` names.
    static LANScanTargets around(std::span<const IPv4Interface> interfaces, std::uint16_t ownPort,
                                 const LocalBinding& binding = {});
};

}  // namespace skein
