#include "tests/support/RelayPairing.h"

#include <boost/system/system_error.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <utility>

namespace skein {

namespace {

std::string queryItem(const std::string& target, std::string_view name) {
    const boost::urls::url_view url = boost::urls::parse_origin_form(target).value();
    const boost::urls::params_view items = url.params();
    const auto found = items.find(name);
    return found == items.end() ? std::string() : std::string((*found).value);
}

}  // namespace

asio::awaitable<void> RelayPairing::serve(ServerWebSocket& socket) {
    co_await socket.accept();
    const std::string& target = socket.target();
    sides_.push_back({socket, queryItem(target, "info_hash"), queryItem(target, "role"), socket.header("X-User-Id")});
    const auto self = std::prev(sides_.end());
    self->partner = partnerFor(*self);
    if (self->partner) {
        self->partner->partner = &*self;
        for (ServerWebSocket* end : {&socket, &self->partner->socket}) end->post(WebSocketMessage::text("ready"));
    }
    try {
        co_await passOn(*self);
    } catch (const boost::system::system_error&) {
        // It has left.
    }
    if (Side* const partner = self->partner) {
        partner->partner = nullptr;
        partner->socket.cut();
    }
    sides_.erase(self);
}

asio::awaitable<void> RelayPairing::passOn(Side& side) {
    for (;;) {
        WebSocketMessage message = co_await side.socket.receive();
        if (!side.partner) continue;
        const auto size = static_cast<std::int64_t>(message.data.size());
        const Route route{side.infoHash, side.user, side.partner->user};
        co_await side.partner->socket.send(std::move(message));
        carried_[route] += size;
    }
}

RelayPairing::Side* RelayPairing::partnerFor(const Side& side) {
    const auto found = std::find_if(sides_.begin(), sides_.end(), [&side](const Side& other) {
        return !other.partner && other.infoHash == side.infoHash && other.role != side.role && other.user != side.user;
    });
    return found != sides_.end() ? &*found : nullptr;
}

void RelayPairing::cutAll() {
    for (Side& side : sides_) side.socket.cut();
}

}  // namespace skein
