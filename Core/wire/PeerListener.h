#pragma once

#include "Core/wire/PeerAddress.h"
#include "Core/wire/PeerWireTransport.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/LocalBinding.h"
#include "public/common/SHA1.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/ip/tcp.hpp>

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace skein {

/// The one listening port of a process: accepts peers, reads whom they ask for, and hands them to that torrent.
///
/// Owner: the program, or a session that was created by itself. Outlives the sessions that are added. Thread: any.
class PeerListener {
public:
    /// Peers that connected and have not yet said for which torrent; more are turned away.
    static constexpr std::size_t maxHalfOpen = 64;
    /// The same of one host, so that nobody shuts the others out. An IPv6 host has a whole /64 to choose from.
    static constexpr std::size_t maxHalfOpenOfHost = 8;
    static constexpr std::chrono::seconds handshakeTimeout{10};
    /// How soon it is noticed that a network interface came, went or changed its addresses.
    static constexpr std::chrono::seconds interfaceCheckInterval{5};

    /// Gets a connection whose handshake is still to be read. Called on the listener's strand.
    using Handler = std::function<void(std::unique_ptr<PeerWireTransport> transport, PeerAddress address)>;

    PeerListener(const asio::any_io_executor& io, Clock& clock, FileLogger& log, LocalBinding binding = {});
    ~PeerListener();

    /// Listens on `port`, or on a free one when it is taken or 0. Where an interface is bound, it listens on that from
    /// when it comes until it goes. Throws boost::system::system_error.
    asio::awaitable<void> start(std::uint16_t port);
    /// The port in use; 0 before `start`.
    std::uint16_t port() const noexcept { return port_; }
    asio::awaitable<void> add(SHA1Digest infoHash, Handler handler);
    /// After it returned, the handler is not called any more.
    asio::awaitable<void> remove(SHA1Digest infoHash);
    asio::awaitable<void> stop();

private:
    using Acceptor = asio::ip::tcp::acceptor;
    class HalfOpen;

    asio::awaitable<void> open(std::uint16_t port);
    void openAll(std::uint16_t port);
    void closeAll();
    void listenOn(const asio::ip::tcp::endpoint& endpoint);
    asio::awaitable<void> followInterface();
    asio::awaitable<void> acceptPeers(std::shared_ptr<Acceptor> acceptor);
    void admit(asio::ip::tcp::socket socket);
    asio::awaitable<void> route(asio::ip::tcp::socket socket, HalfOpen place);
    asio::awaitable<void> insert(SHA1Digest infoHash, Handler handler);
    asio::awaitable<void> erase(SHA1Digest infoHash);

    const asio::any_io_executor io_;
    Clock& clock_;
    FileLogger& log_;
    const LocalBinding binding_;
    std::vector<IPAddress> listensOn_;
    std::atomic<std::uint16_t> port_ = 0;
    std::vector<std::shared_ptr<Acceptor>> acceptors_;  // each shared with the task that accepts from it
    std::map<SHA1Digest, Handler> handlers_;
    std::size_t halfOpen_ = 0;
    std::map<IPAddress, std::size_t> halfOpenOfHost_;
    TaskGroup tasks_;
};

}  // namespace skein
