#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

class FileLogger;

/// One IPv4 address of one of this machine's network interfaces.
struct IPv4Interface {
    std::string name;
    std::string address;   ///< dotted
    unsigned index = 0;    ///< the system's number of the interface
    int prefixLength = 0;  ///< how many leading bits of the address name its network

    friend bool operator==(const IPv4Interface&, const IPv4Interface&) = default;
};

/// The addresses of all interfaces that are up, loopback included, in the system's order. What fails is logged with
/// the tag "[LSD]"; a list that cannot be read is empty. Waits for nothing. Thread: any.
std::vector<IPv4Interface> localIPv4Interfaces(FileLogger& log);

/// The same without the index and without the log; `error` becomes the errno of the call that failed, else 0.
std::vector<IPv4Interface> readIPv4Interfaces(int& error);

/// Local discovery stays on the site: private (RFC 1918) and link-local addresses are used. On a public address the
/// neighbours are strangers, and none of them would be accepted as a local peer.
bool isUsableMulticastInterfaceAddress(std::string_view address);

/// The one of `interfaces` that most likely leads to the local network: a private address before a link-local one,
/// a network card before the bridges and tunnels that virtual machines and VPNs make, the system's order among
/// equals. Nothing when there are none.
std::optional<IPv4Interface> preferredMulticastInterface(std::span<const IPv4Interface> interfaces);

}  // namespace skein
