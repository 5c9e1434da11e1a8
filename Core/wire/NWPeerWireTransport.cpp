#include "Core/wire/NWPeerWireTransport.h"

#include "Core/wire/PeerError.h"
#include "public/common/Within.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/redirect_error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>

namespace skein {

using asio::ip::tcp;

NWPeerWireTransport::NWPeerWireTransport(const asio::any_io_executor& io, Clock& clock, PeerAddress address,
                                         std::chrono::seconds timeout, std::string bindAddress)
    : startMode_(Outgoing{clock, std::move(address), timeout, std::move(bindAddress)}), connection_(io) {}

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
    boost::system::error_code notLiteral;
    const asio::ip::address literal = asio::ip::make_address(outgoing.address.host, notLiteral);
    tcp::endpoint remote(literal, outgoing.address.port);
    if (notLiteral) {
        tcp::resolver resolver(connection_.get_executor());
        const auto found = co_await resolver.async_resolve(outgoing.address.host, std::to_string(outgoing.address.port),
                                                           asio::use_awaitable);
        remote = found.begin()->endpoint();
    }
    connection_.open(remote.protocol());
    if (!outgoing.bindAddress.empty()) {
        const asio::ip::address local = asio::ip::make_address(outgoing.bindAddress);
        if (local.is_v4() == remote.address().is_v4()) connection_.bind(tcp::endpoint(local, 0));
    }
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
