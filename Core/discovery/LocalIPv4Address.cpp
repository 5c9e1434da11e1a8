#include "Core/discovery/LocalIPv4Address.h"

#include "Core/discovery/IPv4Interface.h"
#include "public/common/FileLogger.h"
#include "public/common/IPAddress.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <cstring>

namespace skein {

namespace asio = boost::asio;

namespace {

using asio::ip::udp;

/// a.root-servers.net, at home there since 1993. Connecting a UDP socket sends nothing, it only asks the routing table.
udp::endpoint wellKnown() { return {asio::ip::address_v4({198, 41, 0, 4}), 53}; }

bool isUsable(const std::string& text) {
    const auto address = IPAddress::parse(text);
    if (!address) return false;
    const AddressScope scope = address->scope();
    return scope != AddressScope::loopback && scope != AddressScope::unspecified && scope != AddressScope::multicast;
}

std::optional<std::string> probeRoute(FileLogger& log) try {
    asio::io_context context(1);
    udp::socket socket(context);
    boost::system::error_code error;
    socket.open(udp::v4(), error);
    if (error) {
        log.warning("[LocalIP] socket() failed, errno=", error.message());
        return std::nullopt;
    }
    socket.connect(wellKnown(), error);
    const udp::endpoint local = error ? udp::endpoint() : socket.local_endpoint(error);
    if (error) {
        log.info("[LocalIP] socket route probe failed, errno=", error.message());
        return std::nullopt;
    }
    std::string address = local.address().to_string();
    if (!isUsable(address)) return std::nullopt;
    log.info("[LocalIP] ✓ (socket) ", address);
    return address;
} catch (const boost::system::system_error& failure) {
    // Out of descriptors: without a socket of any kind there is still the list of interfaces.
    log.warning("[LocalIP] socket() failed, errno=", failure.code().message());
    return std::nullopt;
}

}  // namespace

std::optional<std::string> getLocalIPv4Address(FileLogger& log, const LocalBinding& binding) {
    if (binding.isRestricted()) {
        const auto only = binding.sourceFor(true);
        return only ? std::optional(only->text()) : std::nullopt;
    }
    if (auto address = probeRoute(log)) return address;
    int error = 0;
    const auto interfaces = readIPv4Interfaces(error);
    if (error != 0) log.warning("[LocalIP] getifaddrs() failed errno=", std::strerror(error));
    for (const IPv4Interface& interface : interfaces) {
        if (!isUsable(interface.address)) continue;
        log.info("[LocalIP] ✓ (ifaddrs/", interface.name, ") ", interface.address);
        return interface.address;
    }
    return std::nullopt;
}

std::vector<std::string> getLocalIPv4Addresses(FileLogger& log, const LocalBinding& binding) {
    constexpr std::size_t most = 8;
    std::vector<std::string> addresses;
    const auto add = [&](const std::string& address) {
        const bool isKnown = std::find(addresses.begin(), addresses.end(), address) != addresses.end();
        if (!isKnown && isUsable(address) && addresses.size() < most) addresses.push_back(address);
    };
    if (binding.isRestricted()) {
        for (const IPAddress& address : binding.addresses())
            if (address.isIPv4()) add(address.text());
        return addresses;
    }
    if (const auto first = getLocalIPv4Address(log, binding)) add(*first);
    int ignored = 0;  // told by the first look
    for (const IPv4Interface& interface : readIPv4Interfaces(ignored)) add(interface.address);
    return addresses;
}

}  // namespace skein
