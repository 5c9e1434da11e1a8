#pragma once

#include "Core/discovery/LANScanTargets.h"
#include "Core/wire/PeerAddress.h"
#include "public/common/Clock.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace skein {

/// Looks for open TCP ports in the local network. Whether a peer is behind one is for a handshake to find out.
///
/// Owner: the session, which awaits `stop()` before it lets go. Thread: any.
class LANPeerScanner {
public:
    static constexpr std::size_t probesAtOnce = 64;
    /// A host of the same network answers in milliseconds, or after a look-up of its hardware address.
    static constexpr std::chrono::milliseconds probeTimeout{300};

    /// Called on the scanner's strand, as soon as the port is found open.
    using OpenPortFound = std::function<void(PeerAddress peer)>;

    /// `clock` outlives the scanner. `binding` is where the probes are sent from.
    LANPeerScanner(const asio::any_io_executor& pool, Clock& clock, LocalBinding binding = {});

    /// Returns when every port of every host was tried, the first port of all hosts first. Throws only
    /// boost::system::system_error (operation_aborted), when cancelled or stopped; all sockets are closed then.
    asio::awaitable<void> scan(LANScanTargets targets, OpenPortFound onOpenPort);
    /// Ends a scan that runs.
    asio::awaitable<void> stop();

private:
    class Progress;

    asio::awaitable<void> scanAll(LANScanTargets targets, OpenPortFound onOpenPort);
    asio::awaitable<void> probe(Progress& progress);

    Clock& clock_;
    const LocalBinding binding_;
    TaskGroup tasks_;  // last, so that it goes first
};

/// True when a TCP connection to `host` (a literal address) and `port` comes about within `timeout`; it is closed at
/// once. Throws only boost::system::system_error (operation_aborted), when cancelled. Thread: the caller's executor.
asio::awaitable<bool> isTCPPortOpen(Clock& clock, std::string host, std::uint16_t port, Clock::Duration timeout,
                                    LocalBinding binding = {});

}  // namespace skein
