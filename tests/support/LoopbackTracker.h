#pragma once

#include "Core/wire/PeerAddress.h"
#include "tests/support/ScriptedHTTPServer.h"
#include "tests/support/ScriptedUDPServer.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace skein {

/// A small tracker, HTTP and UDP, that really tracks: it keeps the peers of each info-hash and hands them out.
///
/// Source: BEP 3, BEP 7, BEP 15, BEP 23.
/// Owner: the test or program, which awaits `stop()`. Thread: all runs on strands over the given executor, which has
/// one thread.
class LoopbackTracker {
public:
    struct Options {
        std::string address = "127.0.0.1";
        std::uint16_t httpPort = 0;  ///< 0: the system's choice
        std::uint16_t udpPort = 0;
        std::int64_t interval = 1800;  ///< seconds
        std::size_t maxPeers = 200;    ///< in one reply
        std::string failureReason;     ///< answered to every HTTP announce when not empty
    };
    /// One announce, as it was understood.
    struct Seen {
        std::string infoHash;  ///< 20 bytes
        PeerAddress peer;
        std::int64_t downloaded = 0;
        std::int64_t uploaded = 0;
        std::int64_t left = 0;
        std::string event;  ///< "started", "stopped", "completed" or ""
    };

    explicit LoopbackTracker(const asio::any_io_executor& pool) : LoopbackTracker(pool, Options{}) {}
    LoopbackTracker(const asio::any_io_executor& pool, Options options);
    asio::awaitable<void> stop();

    std::string httpURL() const { return http_.url("/announce"); }
    std::string udpURL() const { return udp_.url("/announce"); }

    /// Changes what is answered from now on.
    Options& options() { return options_; }
    const std::vector<Seen>& announces() const { return announces_; }
    /// A peer that is handed out as if it had announced itself.
    void addPeer(ByteView infoHash, const PeerAddress& peer, bool isSeeder = false);

private:
    using Swarm = std::map<PeerAddress, bool>;  ///< the peers, and whether each is a seeder
    struct Answer {
        std::vector<PeerAddress> peers;
        std::int64_t seeders = 0;
        std::int64_t leechers = 0;
    };

    Answer track(const Seen& announce);
    HTTPReply answerHTTP(const SeenHTTPRequest& request);
    std::vector<Bytes> answerUDP(const ScriptedUDPServer::Seen& seen);
    Bytes answerConnect(ByteView datagram);
    Bytes answerAnnounce(const ScriptedUDPServer::Seen& seen);

    Options options_;
    std::map<std::string, Swarm> swarms_;
    std::vector<Seen> announces_;
    std::set<std::uint64_t> connections_;
    std::uint64_t lastConnection_ = 0x5EED;
    ScriptedHTTPServer http_;
    ScriptedUDPServer udp_;
};

}  // namespace skein
