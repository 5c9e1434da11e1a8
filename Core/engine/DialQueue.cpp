#include "Core/engine/DialQueue.h"

#include <algorithm>

namespace skein {

std::string DialQueue::hostOf(const PeerAddress& address) {
    const std::optional<IPAddress> literal = address.literal();
    if (!literal || literal->isIPv4()) return address.host;
    IPAddress::V6Bytes network{};
    std::copy_n(literal->bytes().begin(), network.size() / 2, network.begin());
    return ipv6Text(network);
}

DialQueue::Outcome DialQueue::push(const DialRequest& request) {
    if (addresses_.contains(request.address)) return Outcome::known;
    if (request.isNamedByUser) {
        addresses_.insert(request.address);
        named_.push_back(request);
        return Outcome::queued;
    }
    std::size_t& ofThisHost = ofHost_[hostOf(request.address)];
    if (ofThisHost >= maxOfOneHost) return Outcome::hostIsFull;
    ++ofThisHost;
    addresses_.insert(request.address);
    others_.push_back(request);
    if (others_.size() <= maxPending) return Outcome::queued;
    forget(others_.front());
    others_.pop_front();
    return Outcome::droppedOldest;
}

std::optional<DialRequest> DialQueue::take(const std::function<bool(const DialRequest&)>& mayDial) {
    for (std::deque<DialRequest>* const queue : {&named_, &others_}) {
        const auto found = std::ranges::find_if(*queue, mayDial);
        if (found == queue->end()) continue;
        DialRequest request = *found;
        forget(request);
        queue->erase(found);
        return request;
    }
    return std::nullopt;
}

void DialQueue::eraseIf(const std::function<bool(const DialRequest&)>& isUnwanted) {
    for (std::deque<DialRequest>* const queue : {&named_, &others_})
        std::erase_if(*queue, [&](const DialRequest& request) {
            if (!isUnwanted(request)) return false;
            forget(request);
            return true;
        });
}

void DialQueue::clear() {
    named_.clear();
    others_.clear();
    addresses_.clear();
    ofHost_.clear();
}

void DialQueue::forget(const DialRequest& request) {
    addresses_.erase(request.address);
    if (request.isNamedByUser) return;
    const auto found = ofHost_.find(hostOf(request.address));
    if (found != ofHost_.end() && --found->second == 0) ofHost_.erase(found);
}

}  // namespace skein
