#include "public/common/LocalBinding.h"

#include "public/common/NetworkRefusal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ifaddrs.h>
#include <memory>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

namespace skein {

namespace {

IPAddress unspecified(bool isIPv4) {
    return isIPv4 ? IPAddress(IPAddress::V4Bytes{}) : IPAddress(IPAddress::V6Bytes{});
}

std::optional<IPAddress> addressIn(const sockaddr* address) {
    if (address == nullptr) return std::nullopt;
    if (address->sa_family == AF_INET) {
        sockaddr_in copy{};
        IPAddress::V4Bytes bytes{};
        std::memcpy(&copy, address, sizeof copy);
        std::memcpy(bytes.data(), &copy.sin_addr, bytes.size());
        return IPAddress(bytes);
    }
    if (address->sa_family != AF_INET6) return std::nullopt;
    sockaddr_in6 copy{};
    IPAddress::V6Bytes bytes{};
    std::memcpy(&copy, address, sizeof copy);
    std::memcpy(bytes.data(), &copy.sin6_addr, bytes.size());
    return IPAddress(bytes);
}

/// The interface's address of that family that reaches furthest; nothing when it has none or is down.
std::optional<IPAddress> addressOf(const std::string& interface, bool isIPv4) {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) return std::nullopt;
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> list(first, freeifaddrs);
    std::optional<IPAddress> best;
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        const bool isUp = (entry->ifa_flags & static_cast<unsigned>(IFF_UP)) != 0;
        if (!isUp || interface != entry->ifa_name) continue;
        const auto address = addressIn(entry->ifa_addr);
        if (!address || address->isIPv4() != isIPv4) continue;
        if (!isIPv4 && address->scope() == AddressScope::linkLocal) continue;
        if (!best || address->scope() < best->scope()) best = address;
    }
    return best;
}

boost::system::error_code bindTo(int socket, const IPAddress& address) {
    const ByteView bytes = address.bytes();
    sockaddr_in v4{};
    sockaddr_in6 v6{};
    v4.sin_family = AF_INET;
    v6.sin6_family = AF_INET6;
    std::memcpy(address.isIPv4() ? static_cast<void*>(&v4.sin_addr) : &v6.sin6_addr, bytes.data(), bytes.size());
    const int result = address.isIPv4() ? ::bind(socket, reinterpret_cast<const sockaddr*>(&v4), sizeof v4)
                                        : ::bind(socket, reinterpret_cast<const sockaddr*>(&v6), sizeof v6);
    if (result == 0) return {};
    return {errno, boost::system::system_category()};
}

}  // namespace

LocalBinding::LocalBinding(std::string name) : name_(std::move(name)), literal_(IPAddress::parse(name_)) {}

std::optional<IPAddress> LocalBinding::sourceFor(bool isIPv4) const {
    if (!isRestricted()) return unspecified(isIPv4);
    if (!literal_) return addressOf(name_, isIPv4);
    return literal_->isIPv4() == isIPv4 ? literal_ : std::nullopt;
}

std::vector<IPAddress> LocalBinding::addresses() const {
    std::vector<IPAddress> all;
    for (const bool isIPv4 : {true, false})
        if (const auto source = sourceFor(isIPv4)) all.push_back(*source);
    return all;
}

boost::system::error_code LocalBinding::refusal() const {
    return isGone() ? NetworkRefusal::interfaceGone : NetworkRefusal::familyNotBound;
}

boost::system::error_code LocalBinding::bind(int socket, bool isIPv4) const {
    if (!isRestricted()) return {};
    const auto source = sourceFor(isIPv4);
    if (!source) return refusal();
    tieToInterface(socket);
    return bindTo(socket, *source);
}

void LocalBinding::tieToInterface(int socket) const noexcept {
    if (!isInterface()) return;
        // The source address is what counts; where this is not permitted, the routes alone choose the way of the
        // packets.
#if defined(SO_BINDTODEVICE)
    ::setsockopt(socket, SOL_SOCKET, SO_BINDTODEVICE, name_.data(), static_cast<socklen_t>(name_.size()));
#elif defined(IP_BOUND_IF)
    const unsigned index = if_nametoindex(name_.c_str());
    ::setsockopt(socket, IPPROTO_IP, IP_BOUND_IF, &index, sizeof index);
    ::setsockopt(socket, IPPROTO_IPV6, IPV6_BOUND_IF, &index, sizeof index);
#endif
}

}  // namespace skein
