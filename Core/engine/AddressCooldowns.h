#pragma once

#include "Core/wire/PeerAddress.h"
#include "public/common/Clock.h"

#include <cstddef>
#include <unordered_map>

namespace skein {

/// Addresses that are left alone until a time comes.
class AddressCooldowns {
public:
    /// Those beyond this make room for new ones: a tracker may name any number.
    static constexpr std::size_t maxAddresses = 4096;

    void rest(const PeerAddress& address, Clock::TimePoint until) {
        if (until_.size() >= maxAddresses && !until_.contains(address)) until_.erase(until_.begin());
        until_[address] = until;
    }
    bool isResting(const PeerAddress& address, Clock::TimePoint now) {
        const auto found = until_.find(address);
        if (found == until_.end()) return false;
        if (found->second > now) return true;
        until_.erase(found);
        return false;
    }
    void forget(const PeerAddress& address) { until_.erase(address); }

private:
    std::unordered_map<PeerAddress, Clock::TimePoint> until_;
};

}  // namespace skein
