#pragma once

#include "Core/discovery/DHTEndpoint.h"
#include "Core/discovery/DHTNodeInfo.h"
#include "Core/discovery/NodeID.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string_view>
#include <vector>

namespace skein {

/// Why a look-up ended; the texts stand in the log.
enum class LookupEnd : std::uint8_t { exhausted, queryBudgetExhausted, timeout, cancelled };
std::string_view textOf(LookupEnd end) noexcept;

/// The state of one search for peers: whom to ask next, what came of it, and when to leave off. Plain code without
/// sockets or a clock; not locked. Source: BEP 5.
class PeerLookup {
public:
    using TimePoint = DHTNodeInfo::TimePoint;

    static constexpr std::size_t lookupAlpha = 4;  ///< queries in flight
    static constexpr std::size_t lookupMaxQueries = 80;
    static constexpr std::size_t lookupMaxCandidates = 160;
    static constexpr std::chrono::seconds lookupTimeout{35};
    /// More peers than any session dials; nodes that make peers up gain nothing by more.
    static constexpr std::size_t maxPeers = 4000;
    /// How many nodes keep a record of an announcing peer: BEP 5's K.
    static constexpr std::size_t maxTokenHolders = 8;

    struct Statistics {
        std::size_t queried = 0;
        std::size_t responses = 0;
        std::size_t timeouts = 0;
        std::size_t nodesFound = 0;
        std::size_t peersFound = 0;
        std::size_t peersFromLastResponse = 0;  ///< new ones
        std::size_t rounds = 0;                 ///< how often new queries went out
    };

    PeerLookup(const NodeID& infoHash, TimePoint startedAt) : infoHash_(infoHash), startedAt_(startedAt) {}

    const NodeID& infoHash() const noexcept { return infoHash_; }
    TimePoint startedAt() const noexcept { return startedAt_; }
    TimePoint deadline() const noexcept { return startedAt_ + lookupTimeout; }
    const Statistics& statistics() const noexcept { return statistics_; }
    const std::set<DHTEndpoint>& emittedPeers() const noexcept { return emittedPeers_; }
    /// The closest nodes that answered with a token, which each holds: whom to announce to.
    const std::vector<DHTNodeInfo>& tokenHolders() const noexcept { return tokenHolders_; }

    /// Takes a node as candidate, unless its id or its endpoint was one before or all that is held is closer.
    void offer(const DHTNodeInfo& node);
    /// The closest candidates to be asked now, which count as asked: as many as may be in flight, within the budget
    /// and `atMost`.
    std::vector<DHTNodeInfo> nextQueries(std::size_t atMost);
    /// The node answered, with these peers; returns those that are new. `from` bears its token, if it gave one.
    std::vector<DHTEndpoint> answered(const NodeID& node, const DHTNodeInfo& from,
                                      const std::vector<DHTEndpoint>& peers);
    /// The node did not answer, or could not be asked at all.
    void timedOut(const NodeID& node);
    /// The node answered with an error.
    void failed(const NodeID& node) { inFlightNodes_.erase(node); }

    /// Set when there is nothing more to be done at `now`.
    std::optional<LookupEnd> endAt(TimePoint now) const noexcept;

private:
    void keepToken(const DHTNodeInfo& node);

    const NodeID infoHash_;
    const TimePoint startedAt_;
    std::vector<DHTNodeInfo> candidateNodes_;  ///< not asked yet, closest first
    std::set<NodeID> candidateNodeIDs_;        ///< ever taken
    /// Ever taken: whoever makes up many ids for one endpoint cannot have us shower it with queries.
    std::set<DHTEndpoint> candidateEndpoints_;
    std::set<NodeID> inFlightNodes_;
    std::set<DHTEndpoint> emittedPeers_;
    std::vector<DHTNodeInfo> tokenHolders_;
    Statistics statistics_;
};

}  // namespace skein
