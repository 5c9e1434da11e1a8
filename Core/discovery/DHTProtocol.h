#pragma once

#include "Core/discovery/DHTEndpoint.h"
#include "Core/discovery/DHTNodeInfo.h"
#include "Core/discovery/KRPCMessage.h"
#include "Core/discovery/NodeID.h"
#include "Core/discovery/PeerLookup.h"
#include "Core/discovery/RateLimit.h"
#include "Core/discovery/RoutingTable.h"
#include "Core/discovery/TransactionTable.h"
#include "public/common/Bytes.h"
#include "public/common/Random.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <vector>

namespace skein {

/// All that a DHT node decides: datagrams, wishes and the time go in; datagrams, peers and the next deadline come out.
///
/// It asks much and serves little: "ping" and "find_node" are answered, at a bounded rate; it stores no peers of others
/// and leaves everything else unanswered. Plain code without sockets or a clock; not locked. Source: BEP 5, BEP 32.
class DHTProtocol {
public:
    using Duration = std::chrono::steady_clock::duration;
    using TimePoint = std::chrono::steady_clock::time_point;

    /// Replies a second to all others together. A reply is at most four times as large as its query: what somebody
    /// could reflect from us at a third party by false senders stays below 100 kB/s.
    static constexpr double maxRepliesPerSecond = 200;
    /// BEP 5: a node that answered within the last 15 minutes is good.
    static constexpr std::chrono::minutes goodFor{15};
    /// BEP 5: tokens are accepted for up to ten minutes.
    static constexpr std::chrono::minutes tokenLifetime{10};
    /// Further ones wait for their turn: the queries of these fit into the transactions with room for announces.
    static constexpr std::size_t maxActiveLookups = 200;
    /// Where a look-up begins. Some may be gone; more would only hide from the end of the list how far off it is.
    static constexpr std::size_t lookupSeeds = 32;
    /// Named in replies and announced to: BEP 5's K.
    static constexpr std::size_t closestCount = 8;
    /// Believed of one response; deployed nodes name 8 to 20.
    static constexpr std::size_t maxNodesPerResponse = 32;
    /// Info-hashes whose announce targets are kept.
    static constexpr std::size_t maxRememberedTargets = 1024;

    /// What the decisions are carried out by. It does not call back into the protocol from within.
    class Host {
    public:
        Host() = default;
        Host(const Host&) = delete;
        Host& operator=(const Host&) = delete;
        virtual ~Host() = default;

        /// False when the datagram could not even leave.
        virtual bool send(const DHTEndpoint& to, ByteView datagram) = 0;
        /// Whether there is a socket of this address's family.
        virtual bool canReach(const IPAddress& address) const = 0;
        virtual void foundPeer(const NodeID& infoHash, const DHTEndpoint& peer) = 0;
        virtual void lookupFinished(const PeerLookup& lookup, LookupEnd end, Duration elapsed) = 0;
        /// An announce was answered, refused or timed out.
        virtual void announceSettled() = 0;
    };

    struct AnnounceStatistics {
        std::size_t sent = 0;
        std::size_t succeeded = 0;
        std::size_t failed = 0;
    };

    /// Draws the node's id from `random`. Both outlive the protocol.
    DHTProtocol(Random& random, Host& host);

    const NodeID& nodeID() const noexcept { return routingTable_.localID(); }
    const RoutingTable& routingTable() const noexcept { return routingTable_; }
    const AnnounceStatistics& announces() const noexcept { return announces_; }
    std::size_t announcesOutstanding(const NodeID& infoHash) const noexcept {
        return transactions_.announcesOf(infoHash);
    }

    /// Takes one datagram, whatever it is.
    void receive(ByteView datagram, const DHTEndpoint& from, TimePoint now);
    /// Gives up what has timed out by `now`.
    void expire(TimePoint now);
    /// When `expire` is to be called next; nothing while nothing is outstanding.
    std::optional<TimePoint> deadline() const noexcept;

    /// True when no known node answered lately: a look-up would find nothing.
    bool needsBootstrap(TimePoint now) const noexcept;
    void sendFindNode(const DHTEndpoint& to, const NodeID& target, TimePoint now);

    /// Begins a look-up of an info-hash of which there is none, when its turn comes. It may end before this returns.
    void startLookup(const NodeID& infoHash, TimePoint now);
    /// Null when none runs, or it waits.
    const PeerLookup* activeLookup(const NodeID& infoHash) const noexcept;
    /// One that waits goes without a word.
    void cancelLookup(const NodeID& infoHash, TimePoint now);
    void cancelAllLookups(TimePoint now);
    /// Announces `port` to the closest nodes that gave us a token.
    void announce(const NodeID& infoHash, std::uint16_t port, TimePoint now);

private:
    using Lookups = std::map<NodeID, PeerLookup>;
    struct AnnounceTargets {
        TimePoint since;
        std::vector<DHTNodeInfo> nodes;
    };

    void handleQuery(const KRPCMessage& query, const DHTEndpoint& from, TimePoint now);
    void handleResponse(const KRPCMessage& response, const DHTEndpoint& from, TimePoint now);
    void handleError(const KRPCMessage& error, const DHTEndpoint& from, TimePoint now);
    void handleTransactionTimeout(const TransactionContext& context, TimePoint now);
    void settleAnnounce(bool hasSucceeded);
    void beginWaiting(TimePoint now);

    std::vector<DHTNodeInfo> nodesToName(const NodeID& target, const DHTEndpoint& asker) const;
    std::vector<DHTNodeInfo> credibleNodes(const KRPCMessage& response, const DHTEndpoint& from) const;
    void learnResponder(const DHTNodeInfo& node, TimePoint now);
    void learnHearsay(const DHTNodeInfo& node);
    void forget(const NodeID& id, const DHTEndpoint& endpoint, TimePoint ifSeenBefore);

    /// Sends the query that `encode` makes of a transaction id; false when it could not leave.
    template <class Encode>
    bool ask(const TransactionContext& context, TimePoint now, Encode encode);
    bool sendGetPeers(const DHTNodeInfo& to, const NodeID& infoHash, TimePoint now);
    bool sendAnnounce(const DHTNodeInfo& to, const NodeID& infoHash, std::uint16_t port, TimePoint now);
    void advance(Lookups::iterator lookup, TimePoint now);
    void finish(Lookups::iterator lookup, LookupEnd end, TimePoint now);
    void rememberTargets(const PeerLookup& lookup, TimePoint now);
    std::vector<DHTNodeInfo> announceTargets(const NodeID& infoHash, TimePoint now) const;

    Host& host_;
    RoutingTable routingTable_;
    TransactionTable transactions_;
    Lookups activeLookups_;
    std::deque<NodeID> waitingLookups_;
    std::map<NodeID, AnnounceTargets> announceTargets_;
    RateLimit replies_{maxRepliesPerSecond};
    AnnounceStatistics announces_;
};

}  // namespace skein
