#pragma once

#include "Core/formats/BEncodeValue.h"
#include "Core/wire/PeerAddress.h"
#include "tests/support/ScriptedUDPServer.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace skein {

/// A small DHT whose nodes store what is announced to them and all know each other. For trusted clients only.
///
/// Source: BEP 5, BEP 32. Owner: the test or program, which awaits `stop()`. Thread: all runs on strands over the given
/// executor, which has one thread.
class LoopbackDHT {
public:
    struct Options {
        std::size_t nodes = 30;
        std::string address = "127.0.0.1";
        std::uint16_t port = 0;  ///< of the first node, followed by the others; 0: the system's choices
    };

    LoopbackDHT(const asio::any_io_executor& pool, Options options);
    asio::awaitable<void> stop();

    /// The first node.
    PeerAddress bootstrapNode() const { return {options_.address, nodes_.front().server->port()}; }
    /// A peer that each node hands out as if it had announced itself there.
    void addPeer(ByteView infoHash, const PeerAddress& peer);
    /// Queries understood, by method.
    const std::map<std::string, std::size_t>& queries() const { return queries_; }

private:
    struct Node {
        std::string id;
        std::map<std::string, std::set<std::string>> peers;  ///< in the compact form, by info-hash
        std::unique_ptr<ScriptedUDPServer> server;
    };

    std::vector<Bytes> answer(Node& node, const ScriptedUDPServer::Seen& seen);
    BEncodeValue::Dictionary valuesFor(Node& node, const std::string& method, const BEncodeValue& arguments,
                                       const ScriptedUDPServer::Seen& seen);
    std::string closestNodes(std::string_view target) const;

    const Options options_;
    const bool isIPv4_;
    std::deque<Node> nodes_;
    std::map<std::string, std::size_t> queries_;
};

}  // namespace skein
