#pragma once

#include "Core/discovery/DHTEndpoint.h"
#include "Core/discovery/NodeID.h"
#include "public/common/Bytes.h"
#include "public/common/Random.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <optional>

namespace skein {

enum class QueryType : std::uint8_t { findNode, getPeers, announcePeer };

/// One outstanding query.
struct TransactionContext {
    QueryType type = QueryType::findNode;
    std::optional<NodeID> infoHash;  ///< of getPeers and announcePeer
    std::optional<NodeID> nodeID;    ///< of the queried node, when known
    DHTEndpoint node;
};

/// The queries that wait for an answer, in the order in which they time out: all have the same time. Plain code; not
/// locked.
class TransactionTable {
public:
    using TimePoint = std::chrono::steady_clock::time_point;
    using ID = std::array<std::uint8_t, 2>;

    static constexpr std::chrono::seconds queryTimeout{5};
    /// Few enough of 65,536 that a random id is mostly free, and hard to guess for one who cannot see our queries.
    static constexpr std::size_t maxOutstanding = 1024;

    explicit TransactionTable(Random& random) : random_(random) {}

    /// How many more queries may be outstanding.
    std::size_t room() const noexcept { return maxOutstanding - queue_.size(); }
    bool isFull() const noexcept { return room() == 0; }
    /// Registers a query under an id that no other outstanding one has. The table must not be full.
    ID add(const TransactionContext& context, TimePoint now);
    /// The query that an answer with this id from this endpoint is for, which is then no longer outstanding. Nothing
    /// when there is none, or when it was sent elsewhere: then it goes on waiting for its true answer.
    std::optional<TransactionContext> take(ByteView id, const DHTEndpoint& from);
    /// The first of the queries that have timed out by `now`.
    std::optional<TransactionContext> takeExpired(TimePoint now);
    std::optional<TimePoint> deadline() const noexcept;
    /// How many announces of `infoHash` are outstanding.
    std::size_t announcesOf(const NodeID& infoHash) const noexcept;

private:
    struct Entry {
        ID id{};
        TimePoint deadline;
        TransactionContext context;
    };
    using Queue = std::list<Entry>;

    ID generateTransactionID();
    TransactionContext remove(Queue::iterator entry);

    Random& random_;
    Queue queue_;
    std::map<ID, Queue::iterator> byID_;
};

}  // namespace skein
