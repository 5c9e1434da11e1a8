#pragma once

#include "Core/discovery/IPv4Interface.h"
#include "public/common/FileLogger.h"
#include "public/common/LocalBinding.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/udp.hpp>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// The UDP socket of local discovery: port 6771, joined to the group on each usable interface. Port and group are
/// shared with all other programs and services that do the same. System calls that fail are logged, not thrown; none
/// of them waits. Thread: the strand it was made for. Source: BEP 14.
class LSDSocket {
public:
    /// How many datagrams are read before others have their turn on the strand.
    static constexpr int datagramsAtOnce = 64;

    /// Where `binding` is restricted, only that interface is used (loopback too), while it is there. `log` outlives the
    /// socket.
    LSDSocket(const Strand& strand, const LocalBinding& binding, FileLogger& log);

    /// False when there is no socket, or its port cannot be had; it is closed then.
    bool open();
    void close();
    /// Announces also come back to this machine, where other programs hear them (loopback always does that on Linux).
    void loopBack();
    /// Sends `datagram` to the group on every joined interface. `what` ends the log's line about each.
    void announce(std::string_view datagram, std::string_view what);
    /// Returns when something can be read. Throws boost::system::system_error (operation_aborted) when cancelled.
    asio::awaitable<void> waitUntilReadable();
    /// Reads what is there, `datagramsAtOnce` at most. False after a failure: not to be tried again at once.
    using Receiver = std::function<void(std::string_view datagram, const std::string& fromHost)>;
    bool receiveAvailableDatagrams(const Receiver& receiver);

private:
    bool configureSocket();
    std::vector<IPv4Interface> usableInterfaces();
    // These return 0 or the errno of the failure.
    int setOption(int level, int option, const void* value, std::size_t size, std::string_view what);
    int selectInterface(const IPv4Interface& interface);
    int send(std::string_view datagram, const std::string& interfaceName, std::string_view what);
    void followInterface();
    bool joinGroup();
    bool join(const std::string& address, int& error);
    void chooseOutboundInterface();

    const LocalBinding binding_;
    FileLogger& log_;
    asio::ip::udp::socket socket_;
    std::vector<IPv4Interface> interfaces_;
};

}  // namespace skein
