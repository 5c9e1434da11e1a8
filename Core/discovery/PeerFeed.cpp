#include "Core/discovery/PeerFeed.h"

#include "Core/discovery/PeerLookup.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <utility>

namespace skein {

PeerFeed::PeerFeed(const Strand& strand)
    : queue_(strand.get_inner_executor(), PeerLookup::maxPeers + 1), strand_(strand) {}

std::shared_ptr<PeerFeed> PeerFeed::supply() {
    return {this, [self = shared_from_this()](PeerFeed*) { self->end(); }};
}

void PeerFeed::put(PeerAddress peer) { queue_.try_send(boost::system::error_code(), std::move(peer)); }

void PeerFeed::end() {
    onAbandoned_ = nullptr;
    queue_.try_send(boost::system::error_code(), std::nullopt);
}

asio::awaitable<std::optional<PeerAddress>> PeerFeed::take() {
    const auto self = shared_from_this();  // the stream may go while its last `next()` still ends
    if (hasEnded_) co_return std::nullopt;
    auto [error, peer] = co_await queue_.async_receive(asio::as_tuple(asio::use_awaitable));
    if (error) throw boost::system::system_error(asio::error::operation_aborted);
    hasEnded_ = !peer;
    co_return std::move(peer);
}

void PeerFeed::abandon() {
    asio::post(strand_, [self = shared_from_this()] {
        self->isAbandoned_ = true;
        const auto action = std::exchange(self->onAbandoned_, nullptr);
        if (action) action();
    });
}

}  // namespace skein
