#pragma once

#include "tests/support/ServerWebSocket.h"

#include <boost/asio/awaitable.hpp>

#include <compare>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

namespace skein {

/// The service's end of relays: pairs a seeder with a leecher of the same torrent who is another user, and passes on
/// what each sends as fast as the other takes it, message by message.
///
/// Owner: the test or the program; it outlives the sockets that it serves. Thread: the one strand of those sockets.
class RelayPairing {
public:
    struct Route {
        std::string infoHash;
        std::string fromUser;
        std::string toUser;
        friend auto operator<=>(const Route&, const Route&) = default;
    };

    /// Serves one side until it leaves or its partner does.
    asio::awaitable<void> serve(ServerWebSocket& socket);

    /// Breaks off all sides, paired or not.
    void cutAll();

    /// Bytes passed on so far.
    const std::map<Route, std::int64_t>& carried() const noexcept { return carried_; }
    std::size_t sides() const noexcept { return sides_.size(); }

private:
    struct Side {
        ServerWebSocket& socket;
        std::string infoHash;
        std::string role;
        std::string user;
        Side* partner = nullptr;
    };

    Side* partnerFor(const Side& side);
    asio::awaitable<void> passOn(Side& side);

    std::list<Side> sides_;
    std::map<Route, std::int64_t> carried_;
};

}  // namespace skein
