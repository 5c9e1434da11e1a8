#pragma once

#include "Core/discovery/DHTProtocol.h"
#include "Core/discovery/DHTSocket.h"
#include "Core/discovery/PeerStream.h"
#include "Core/wire/PeerAddress.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/NameResolver.h"
#include "public/common/Notifier.h"
#include "public/common/Random.h"
#include "public/common/SHA1.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// A node of the Mainline DHT, for all sessions of the process: finds the peers of an info-hash and announces us.
///
/// It carries what DHTProtocol decides: one or two sockets, the deadlines, and the streams of those who asked. While
/// nothing is outstanding nothing of it wakes up.
/// Owner: the program, or a session that was created by itself; it awaits `stop()` after those who use the node have
/// stopped, and before it lets go. Thread: any; the state lives on the strand of `tasks_`. Source: BEP 5, BEP 32.
class DHTNode final : private DHTProtocol::Host {
public:
    static constexpr std::uint16_t defaultPort = 6881;
    /// How long the routers have to fill the routing table before the first look-up begins.
    static constexpr std::chrono::seconds bootstrapTime{2};
    /// How soon it is noticed that a network interface came, went or changed its addresses.
    static constexpr std::chrono::seconds interfaceCheckInterval{5};
    /// Where a node without neighbours asks for some: public routers of the DHT.
    static const std::vector<PeerAddress> bootstrapNodes;

    /// What the node works with; all of it outlives the node.
    struct Environment {
        asio::any_io_executor io;
        Clock& clock;
        FileLogger& log;
        Random& random;
        NameResolver& resolver;
    };
    struct Options {
        LocalBinding binding;              ///< by default all addresses, IPv4 and IPv6
        std::uint16_t port = defaultPort;  ///< 0 lets the system choose
        std::vector<PeerAddress> bootstrapNodes = DHTNode::bootstrapNodes;
    };

    DHTNode(const Environment& environment, Options options);
    ~DHTNode() override;

    /// Opens the socket and asks the bootstrap nodes; returns after `bootstrapTime`. Throws
    /// boost::system::system_error when the port cannot be opened, and may then be called again. Once open, a further
    /// call only waits for the bootstrap.
    asio::awaitable<void> start();
    /// As `start()`, but does not wait for the bootstrap.
    asio::awaitable<void> startListening();
    /// Of the open socket; 0 before it is open (`start()` opens it before it first waits).
    std::uint16_t port() const noexcept { return port_; }
    /// Looks for peers of `infoHash`, once the bootstrap is over; several may do so for one info-hash, and share the
    /// work. A node that is not started finds nothing. Not after `stop()`.
    std::unique_ptr<PeerStream> findPeers(const SHA1Digest& infoHash);
    /// Tells the nodes closest to `infoHash` that gave us a token that we serve it, and returns when each has answered
    /// or timed out (5 s). What the other side records is the port of this socket, `downloadPort` where it cannot.
    asio::awaitable<void> announcePeer(SHA1Digest infoHash, std::uint16_t downloadPort);
    /// Ends running look-ups as cancelled; their streams end. Returns when nothing of the node runs any more.
    asio::awaitable<void> stop();

private:
    using Feeds = std::vector<std::shared_ptr<PeerFeed>>;

    asio::awaitable<void> begin();
    asio::awaitable<void> beginListening();
    void open();
    asio::awaitable<void> followInterface();
    void beginBootstrap();
    asio::awaitable<void> bootstrap();
    asio::awaitable<void> bootstrapEnded();
    asio::awaitable<void> greet(PeerAddress router);
    void closeSockets() noexcept;
    asio::awaitable<void> listen(std::shared_ptr<DHTSocket> socket);
    asio::awaitable<void> keepDeadlines();
    asio::awaitable<void> serve(std::shared_ptr<PeerFeed> feed, SHA1Digest infoHash);
    asio::awaitable<void> announce(SHA1Digest infoHash, std::uint16_t downloadPort);
    asio::awaitable<void> shutDown();
    void join(const std::shared_ptr<PeerFeed>& feed, const SHA1Digest& infoHash);
    void leave(const PeerFeed* feed, const SHA1Digest& infoHash);
    void wakeForDeadline();

    bool send(const DHTEndpoint& to, ByteView datagram) override;
    bool canReach(const IPAddress& address) const override;
    void foundPeer(const NodeID& infoHash, const DHTEndpoint& peer) override;
    void lookupFinished(const PeerLookup& lookup, LookupEnd end, DHTProtocol::Duration elapsed) override;
    void announceSettled() override;

    const Environment environment_;
    const Options options_;
    std::atomic<std::uint16_t> port_ = 0;
    bool isRunning_ = false;
    bool isBootstrapping_ = false;
    DHTProtocol protocol_;
    std::vector<std::shared_ptr<DHTSocket>> sockets_;  // each shared with the task that reads it
    std::vector<IPAddress> listensOn_;
    std::map<SHA1Digest, Feeds> feeds_;
    std::optional<Clock::TimePoint> lastBootstrap_;
    bool awaitsDeadline_ = false;  ///< nothing was outstanding when `keepDeadlines` last looked
    TaskGroup tasks_;
    Notifier deadlineSet_;
    Notifier bootstrapped_;
    Notifier announced_;
};

}  // namespace skein
