#include "Core/discovery/TransactionTable.h"

#include <algorithm>
#include <cassert>

namespace skein {

TransactionTable::ID TransactionTable::generateTransactionID() {
    ID id{};
    do random_.fill(id);
    while (byID_.contains(id));
    return id;
}

TransactionTable::ID TransactionTable::add(const TransactionContext& context, TimePoint now) {
    assert(!isFull());
    const ID id = generateTransactionID();
    byID_[id] = queue_.insert(queue_.end(), Entry{id, now + queryTimeout, context});
    return id;
}

std::optional<TransactionContext> TransactionTable::take(ByteView id, const DHTEndpoint& from) {
    ID key{};
    if (id.size() != key.size()) return std::nullopt;
    std::copy(id.begin(), id.end(), key.begin());
    const auto found = byID_.find(key);
    if (found == byID_.end() || found->second->context.node != from) return std::nullopt;
    return remove(found->second);
}

std::optional<TransactionContext> TransactionTable::takeExpired(TimePoint now) {
    if (queue_.empty() || queue_.front().deadline > now) return std::nullopt;
    return remove(queue_.begin());
}

std::optional<TransactionTable::TimePoint> TransactionTable::deadline() const noexcept {
    if (queue_.empty()) return std::nullopt;
    return queue_.front().deadline;
}

std::size_t TransactionTable::announcesOf(const NodeID& infoHash) const noexcept {
    return static_cast<std::size_t>(std::count_if(queue_.begin(), queue_.end(), [&](const Entry& entry) {
        return entry.context.type == QueryType::announcePeer && entry.context.infoHash == infoHash;
    }));
}

TransactionContext TransactionTable::remove(Queue::iterator entry) {
    const TransactionContext context = entry->context;
    byID_.erase(entry->id);
    queue_.erase(entry);
    return context;
}

}  // namespace skein
