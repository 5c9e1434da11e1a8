#include "Core/discovery/PeerStream.h"

#include "Core/discovery/PeerFeed.h"

#include <utility>

namespace skein {

PeerStream::PeerStream(std::shared_ptr<PeerFeed> feed) : feed_(std::move(feed)) {}

PeerStream::~PeerStream() { feed_->abandon(); }

asio::awaitable<std::optional<PeerAddress>> PeerStream::next() { return feed_->take(); }

}  // namespace skein
