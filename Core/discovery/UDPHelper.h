#pragma once

#include "Core/discovery/DatagramConnection.h"
#include "public/common/Bytes.h"
#include "public/common/Clock.h"
#include "public/common/Gate.h"
#include "public/common/NameResolver.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace skein {

/// The two steps of which an exchange with a UDP tracker is made. Thread: any; what it is given outlives it.
class UDPHelper {
public:
    /// For looking up the name; the socket itself is ready at once.
    static constexpr std::chrono::seconds connectTimeout{15};

    /// A socket, and the place that it takes up.
    struct Line {
        Gate::Pass pass;
        std::unique_ptr<DatagramConnection> connection;
    };

    /// `gate`: how many such sockets there may be.
    UDPHelper(Clock& clock, NameResolver& resolver, DatagramConnector& datagrams, Gate gate = {});

    /// A socket to the first address of `host`, named by `origin`, to which one can be had; waits for its turn. Throws
    /// TrackerException (timeout), boost::system::system_error.
    asio::awaitable<Line> connect(std::string host, std::uint16_t port, AddressOrigin origin);
    /// Sends `data`, a request of TrackerRequest, once and returns the answer to it. Datagrams that do not answer it
    /// are passed over: waiting ends with the answer or the time. Throws TrackerException (timeout),
    /// boost::system::system_error.
    asio::awaitable<Bytes> sendAndReceive(DatagramConnection& connection, Bytes data, std::chrono::seconds timeout);

private:
    Clock& clock_;
    NameResolver& resolver_;
    DatagramConnector& datagrams_;
    const Gate gate_;
};

}  // namespace skein
