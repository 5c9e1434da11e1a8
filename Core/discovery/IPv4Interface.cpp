#include "Core/discovery/IPv4Interface.h"

#include "public/common/FileLogger.h"
#include "public/common/IPAddress.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace skein {

namespace {

in_addr addressIn(const sockaddr* address) {
    sockaddr_in copy{};
#ifdef __APPLE__
    // A mask comes without its trailing zeros.
    std::memcpy(&copy, address, std::min(std::size_t{address->sa_len}, sizeof copy));
#else
    std::memcpy(&copy, address, sizeof copy);
#endif
    return copy.sin_addr;
}

std::string textOf(in_addr address) {
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    return text.data();
}

int prefixLengthOf(const ifaddrs& entry) {
    return entry.ifa_netmask == nullptr ? 32 : std::popcount(addressIn(entry.ifa_netmask).s_addr);
}

bool isVirtual(std::string_view name) {
    constexpr std::array<std::string_view, 18> prefixes{"awdl", "br-",  "bridge",    "docker", "ipsec", "llw",
                                                        "lxc",  "ppp",  "tailscale", "tap",    "tun",   "utun",
                                                        "vbox", "veth", "virbr",     "vmnet",  "wg",    "zt"};
    return std::any_of(prefixes.begin(), prefixes.end(),
                       [&](std::string_view prefix) { return name.starts_with(prefix); });
}

std::optional<AddressScope> scopeOf(std::string_view text) {
    const auto address = IPAddress::parse(text);
    if (!address || !address->isIPv4()) return std::nullopt;
    return address->scope();
}

/// Lower is better.
int rankOf(const IPv4Interface& interface) {
    const int isOdd = scopeOf(interface.address) == AddressScope::privateUse ? 0 : 2;
    return isOdd + (isVirtual(interface.name) ? 1 : 0);
}

}  // namespace

std::vector<IPv4Interface> readIPv4Interfaces(int& error) {
    std::vector<IPv4Interface> interfaces;
    ifaddrs* first = nullptr;
    error = getifaddrs(&first) == 0 ? 0 : errno;
    if (error != 0) return interfaces;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(first, freeifaddrs);
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        const bool isUp = (entry->ifa_flags & static_cast<unsigned>(IFF_UP)) != 0;
        if (!isUp || entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
        interfaces.push_back({entry->ifa_name, textOf(addressIn(entry->ifa_addr)), 0, prefixLengthOf(*entry)});
    }
    return interfaces;
}

std::vector<IPv4Interface> localIPv4Interfaces(FileLogger& log) {
    int error = 0;
    std::vector<IPv4Interface> interfaces = readIPv4Interfaces(error);
    if (error != 0) log.warning("[LSD] getifaddrs failed errno=", std::strerror(error));
    std::erase_if(interfaces, [&](IPv4Interface& interface) {
        interface.index = if_nametoindex(interface.name.c_str());
        if (interface.index != 0) return false;
        log.warning("[LSD] if_nametoindex(", interface.name, ") failed errno=", std::strerror(errno));
        return true;
    });
    return interfaces;
}

bool isUsableMulticastInterfaceAddress(std::string_view address) {
    const auto scope = scopeOf(address);
    return scope == AddressScope::privateUse || scope == AddressScope::linkLocal;
}

std::optional<IPv4Interface> preferredMulticastInterface(std::span<const IPv4Interface> interfaces) {
    const auto best =
        std::min_element(interfaces.begin(), interfaces.end(),
                         [](const IPv4Interface& a, const IPv4Interface& b) { return rankOf(a) < rankOf(b); });
    if (best == interfaces.end()) return std::nullopt;
    return *best;
}

}  // namespace skein
