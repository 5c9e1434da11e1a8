#pragma once

#include "Core/wire/PeerAddress.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/experimental/concurrent_channel.hpp>

#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace skein {

/// What lies between a look-up and its consumer: a queue that crosses from the node's strand to any other.
///
/// The node holds a `supply` of it as long as there may be more, the stream as long as somebody wants it.
class PeerFeed : public std::enable_shared_from_this<PeerFeed> {
public:
    explicit PeerFeed(const Strand& strand);

    // Thread: the node's strand.

    /// The feed, which ends when the last copy of this pointer goes, in whatever way its holder ends.
    std::shared_ptr<PeerFeed> supply();
    /// At most PeerLookup::maxPeers, which is all that a look-up hands out.
    void put(PeerAddress peer);
    bool isAbandoned() const noexcept { return isAbandoned_; }
    /// What to do when nobody wants the feed any more; not done once it has ended.
    void onAbandoned(std::function<void()> action) { onAbandoned_ = std::move(action); }

    // Thread: any.

    asio::awaitable<std::optional<PeerAddress>> take();  ///< one at a time
    void abandon();

private:
    void end();

    /// Nothing stands for the end: closing this channel would lose what is still in it.
    asio::experimental::concurrent_channel<void(boost::system::error_code, std::optional<PeerAddress>)> queue_;
    const Strand strand_;
    std::function<void()> onAbandoned_;
    bool isAbandoned_ = false;
    bool hasEnded_ = false;  ///< the consumer's
};

}  // namespace skein
