#include "Core/discovery/LANScanTargets.h"

#include "public/common/IPAddress.h"

#include <algorithm>
#include <set>

namespace skein {

namespace {

constexpr int shortestPrefix = 24;

IPAddress fromNumber(std::uint32_t number) {
    IPAddress::V4Bytes bytes{};
    writeBigEndian(bytes.data(), number);
    return IPAddress(bytes);
}

/// RFC 1918: 192.168/16, 172.16/12, 10/8; and RFC 3927: 169.254/16.
bool isOfLocalNetwork(const IPAddress& address) {
    return address.isIPv4() &&
           (address.scope() == AddressScope::privateUse || address.scope() == AddressScope::linkLocal);
}

}  // namespace

LANScanTargets LANScanTargets::around(std::span<const IPv4Interface> interfaces, std::uint16_t ownPort,
                                      const LocalBinding& binding) {
    LANScanTargets targets;
    const std::optional<IPAddress> source = binding.sourceFor(true);
    // Two interfaces may be on one network; none of our own addresses is a target, whichever interface it belongs to.
    std::set<std::uint32_t> leftOut;
    for (const IPv4Interface& interface : interfaces)
        if (const auto own = IPAddress::parse(interface.address); own && own->isIPv4())
            leftOut.insert(readBigEndian<std::uint32_t>(own->bytes()));
    for (const IPv4Interface& interface : interfaces) {
        const auto own = IPAddress::parse(interface.address);
        if (!own || !isOfLocalNetwork(*own) || (binding.isRestricted() && own != source)) continue;
        const int prefix = std::clamp(interface.prefixLength, shortestPrefix, 32);
        const std::uint32_t hostMask = prefix == 32 ? 0 : ~std::uint32_t{0} >> static_cast<unsigned>(prefix);
        const std::uint32_t network = readBigEndian<std::uint32_t>(own->bytes()) & ~hostMask;
        // The first address names the network and the last one all of its hosts, but of a pair (RFC 3021).
        const bool isPair = hostMask <= 1;
        for (std::uint32_t host = isPair ? 0 : 1; host <= (isPair ? hostMask : hostMask - 1); ++host)
            if (targets.hosts.size() < maxHosts && leftOut.insert(network + host).second)
                targets.hosts.push_back(fromNumber(network + host).text());
    }
    for (std::uint16_t port = firstPort; port <= lastPort; ++port) targets.ports.push_back(port);
    if (ownPort != 0 && (ownPort < firstPort || ownPort > lastPort)) targets.ports.push_back(ownPort);
    return targets;
}

}  // namespace skein
