#include "Core/wire/NWPeerWireTransport.h"

#include "Core/wire/PeerError.h"
#include "public/common/AsioAddress.h"
#include "public/common/BoundSocket.h"
#include "public/common/Within.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>

namespace skein {

using asio::ip::tcp;

NWPeerWireTransport::NWPeerWireTransport(const asio::any_io_executor& io, Clock& clock, WayOut way, PeerAddress address,
                                         std::chrono::seconds timeout)
    : startMode_(Outgoing{clock, std::move(way), std::move(address), timeout}), connection_(io) {}

NWPeerWireTransport::NWPeerWireTransport(tcp::socket incoming)
    : startMode_(Incoming{}), connection_(std::move(incoming)) {}

NWPeerWireTransport::~NWPeerWireTransport() = default;

asio::awaitable<void> NWPeerWireTransport::start() {
    if (const auto* outgoing = std::get_if<Outgoing>(&startMode_)) {
        bool isLate = false;
        try {
            co_await within(outgoing->clock, outgoing->timeout, connect());
        } catch (const TimeLimitExceeded&) {
            isLate = true;
        }
        if (isLate) {
            cancel();
            throw PeerException(PeerError::timeout);
        }
    }
    boost::system::error_code ignored;  // a peer that is gone already is noticed by the first receive
    connection_.set_option(tcp::no_delay(true), ignored);
}

asio::awaitable<void> NWPeerWireTransport::connect() {
    const auto& outgoing = std::get<Outgoing>(startMode_);
    const std::vector<IPAddress> addresses = co_await outgoing.way.resolver.resolve(outgoing.address.host);
    const tcp::endpoint remote(toAsio(addresses.front()), outgoing.address.port);
    openBound(connection_, remote, outgoing.way.binding);
    co_await connection_.async_connect(remote, asio::use_awaitable);
}

asio::awaitable<void> NWPeerWireTransport::send(ByteView data) {
    co_await asio::async_write(connection_, asio::buffer(data.data(), data.size()), asio::use_awaitable);
}

asio::awaitable<std::size_t> NWPeerWireTransport::receiveSome(std::span<std::uint8_t> into) {
    if (putBackUsed_ < putBack_.size()) {
        const std::size_t count = std::min(into.size(), putBack_.size() - putBackUsed_);
        std::copy_n(putBack_.begin() + static_cast<std::ptrdiff_t>(putBackUsed_), count, into.begin());
        putBackUsed_ += count;
        co_return count;
    }
    boost::system::error_code error;
    const std::size_t count = co_await connection_.async_read_some(asio::buffer(into.data(), into.size()),
                                                                   asio::redirect_error(asio::use_awaitable, error));
    if (error == asio::error::eof) throw PeerException(PeerError::connectionClosed);
    if (error) throw boost::system::system_error(error);
    co_return count;
}

void NWPeerWireTransport::cancel() noexcept {
    boost::system::error_code ignored;
    connection_.close(ignored);
}

}  // namespace skein
