#pragma once

#include "Core/engine/DialRequest.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

namespace skein {

/// The dials that wait for room: those that the user named first, the others in the order in which they came.
///
/// One source may name any number of ports of one host, so what is kept for a host is bounded. The addresses of an IPv6
/// host are those of its network of 64 bits, all of which are its own. Owner: PeerDialer.
class DialQueue {
public:
    static constexpr std::size_t maxPending = 256;
    static constexpr std::size_t maxOfOneHost = 32;

    enum class Outcome : std::uint8_t {
        queued,
        known,         ///< it waits already
        hostIsFull,    ///< enough of that host wait
        droppedOldest  ///< queued, and the one that waited longest was dropped
    };

    Outcome push(const DialRequest& request);
    /// The first that may be dialled now by that account.
    std::optional<DialRequest> take(const std::function<bool(const DialRequest&)>& mayDial);
    void eraseIf(const std::function<bool(const DialRequest&)>& isUnwanted);
    void clear();
    std::size_t size() const noexcept { return named_.size() + others_.size(); }
    bool empty() const noexcept { return size() == 0; }

    /// What counts as one host.
    static std::string hostOf(const PeerAddress& address);

private:
    void forget(const DialRequest& request);

    std::deque<DialRequest> named_;
    std::deque<DialRequest> others_;
    std::unordered_set<PeerAddress> addresses_;
    std::unordered_map<std::string, std::size_t> ofHost_;  // of `others_`
};

}  // namespace skein
