#pragma once

#include "Core/wire/PeerAddress.h"

#include <boost/asio/awaitable.hpp>

#include <memory>
#include <optional>

namespace skein {

namespace asio = boost::asio;

class PeerFeed;

/// The consumer's end of a look-up: its peers, each once, as they are found.
///
/// Owner: whoever asked; destroying it gives the look-up up. One consumer, on any thread, that awaits one `next()` at a
/// time.
class PeerStream {
public:
    explicit PeerStream(std::shared_ptr<PeerFeed> feed);
    PeerStream(const PeerStream&) = delete;
    PeerStream& operator=(const PeerStream&) = delete;
    ~PeerStream();

    /// The next peer, as soon as there is one; nothing once the look-up has ended and all were taken. Throws
    /// boost::system::system_error (operation_aborted) when the caller is cancelled.
    asio::awaitable<std::optional<PeerAddress>> next();

private:
    const std::shared_ptr<PeerFeed> feed_;
};

}  // namespace skein
