#include "Core/discovery/UDPHelper.h"

#include "Core/discovery/TrackerError.h"
#include "Core/discovery/TrackerReply.h"
#include "public/common/Within.h"

#include <boost/asio/error.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/system/system_error.hpp>

#include <utility>

namespace skein {

namespace {

asio::awaitable<Bytes> exchange(DatagramConnection& connection, Bytes data) {
    Bytes request = data;
    co_await connection.send(std::move(request));
    for (;;) {
        Bytes answer = co_await connection.receive();
        if (TrackerReply::isAnswerTo(data, answer)) co_return answer;
    }
}

}  // namespace

UDPHelper::UDPHelper(Clock& clock, NameResolver& resolver, DatagramConnector& datagrams, Gate gate)
    : clock_(clock), resolver_(resolver), datagrams_(datagrams), gate_(std::move(gate)) {}

asio::awaitable<UDPHelper::Line> UDPHelper::connect(std::string host, std::uint16_t port, AddressOrigin origin) try {
    const auto executor = co_await asio::this_coro::executor;
    const auto addresses = co_await within(clock_, connectTimeout, resolver_.resolve(std::move(host)));
    Line line;
    line.pass = co_await gate_.enter();
    boost::system::error_code failure = asio::error::address_family_not_supported;
    for (const IPAddress& address : addresses) {
        try {
            line.connection = datagrams_.connect(executor, address, port, origin);
            co_return line;
        } catch (const boost::system::system_error& error) {
            failure = error.code();  // no route by this protocol, perhaps by the other
        }
    }
    throw boost::system::system_error(failure);
} catch (const TimeLimitExceeded&) {
    throw TrackerException(TrackerError::timeout);
}

asio::awaitable<Bytes> UDPHelper::sendAndReceive(DatagramConnection& connection, Bytes data,
                                                 std::chrono::seconds timeout) try {
    Bytes answer = co_await within(clock_, timeout, exchange(connection, std::move(data)));
    co_return answer;
} catch (const TimeLimitExceeded&) {
    throw TrackerException(TrackerError::timeout);
}

}  // namespace skein
