#include "tests/support/UTPAcceptor.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <algorithm>
#include <stdexcept>

namespace skein {

using namespace std::chrono_literals;
using asio::ip::udp;

namespace {

constexpr std::size_t payloadSize = 1400;
constexpr std::size_t packetsInFlight = 32;

bool isAhead(std::uint16_t a, std::uint16_t b) { return static_cast<std::int16_t>(a - b) > 0; }

}  // namespace

UTPAcceptor::UTPAcceptor(const asio::any_io_executor& executor, Clock& clock, Path path)
    : clock_(clock),
      path_(path),
      nextSequence_(static_cast<std::uint16_t>(path.firstSequence + (path.firstDataHasStateNumber ? 0 : 1))),
      tasks_(executor),
      changed_(tasks_.strand()),
      socket_(tasks_.strand(), udp::endpoint(asio::ip::address_v4::loopback(), 0)) {
    tasks_.spawn(receiveLoop());
    tasks_.spawn(resendLoop());
}

asio::awaitable<void> UTPAcceptor::stop() {
    co_await tasks_.stop();
    socket_.close();
    isStopped_ = true;
    changed_.notify();
}

asio::awaitable<void> UTPAcceptor::receiveLoop() {
    for (;;) {
        Bytes datagram(2048);
        const auto space = asio::buffer(datagram);
        const auto [failure, size] =
            co_await socket_.async_receive_from(space, remote_, asio::as_tuple(asio::use_awaitable));
        if (failure == asio::error::operation_aborted) co_return;
        datagram.resize(size);
        if (!failure) pass(true, std::move(datagram));
    }
}

asio::awaitable<void> UTPAcceptor::resendLoop() try {
    for (;;) {
        co_await clock_.sleep(100ms);
        if (!std::exchange(hasProgressed_, false)) resend();
    }
} catch (const std::exception&) {
    // Stopped.
}

asio::awaitable<void> UTPAcceptor::later(Clock::Duration delay, bool isIncoming, Bytes datagram) try {
    co_await clock_.sleep(delay);
    deliver(isIncoming, datagram);
} catch (const std::exception&) {
    // Stopped.
}

void UTPAcceptor::pass(bool isIncoming, Bytes datagram) {
    if (isChosen(path_.loss)) return;
    const auto delay = path_.delay + (isChosen(path_.reordering) ? 1ms : 0ms);
    for (int copies = isChosen(path_.duplication) ? 2 : 1; copies > 0; --copies) {
        if (delay > 0ms) {
            tasks_.spawn(later(delay, isIncoming, datagram));
        } else {
            deliver(isIncoming, datagram);
        }
    }
}

void UTPAcceptor::deliver(bool isIncoming, const Bytes& datagram) {
    if (!isIncoming) {
        boost::system::error_code gone;
        socket_.send_to(asio::buffer(datagram), remote_, 0, gone);
        return;
    }
    const auto number = [&](std::size_t at) { return readBigEndian<std::uint16_t>(ByteView(datagram).subspan(at)); };
    if (datagram.size() < 20 || (datagram[0] & 15U) != 1 || datagram[1] != 0) return;
    onPacket({static_cast<Type>(datagram[0] >> 4U), number(2), number(16), number(18), datagram.size() - 20},
             readBigEndian<std::uint32_t>(ByteView(datagram).subspan(12)), ByteView(datagram).subspan(20));
}

void UTPAcceptor::onPacket(const Packet& packet, std::uint32_t window, ByteView payload) {
    seen.push_back(packet);
    if (packet.type == syn) {
        connectionID_ = packet.connectionID;
        if (expected_ == 0) expected_ = static_cast<std::uint16_t>(packet.sequence + 1);
        pass(false, encode(state, path_.firstSequence));
    }
    const auto lastSent = static_cast<std::uint16_t>(nextSequence_ - 1);
    if (packet.connectionID != connectionID_ + 1 || isAhead(packet.acknowledgement, lastSent)) return;
    window_ = window;
    const auto stillOut = static_cast<std::uint16_t>(lastSent - packet.acknowledgement);
    if (stillOut < unacknowledged_.size()) {
        unacknowledged_.erase(unacknowledged_.begin(), unacknowledged_.end() - stillOut);
        duplicates_ = 0;
        hasProgressed_ = true;
    } else if (packet.type == state && ++duplicates_ % packetsInFlight == 3) {
        resend();
    }
    if (packet.type == data) {
        if (packet.sequence == expected_) {
            append(received_, payload);
            ++expected_;
        }
        pass(false, encode(state, nextSequence_));
    }
    fillWindow();
    changed_.notify();
}

Bytes UTPAcceptor::encode(Type type, std::uint16_t sequence, const Bytes& payload) const {
    Bytes datagram{static_cast<std::uint8_t>(type << 4U | 1U), 0};
    appendBigEndian(datagram, connectionID_);
    datagram.resize(12);
    appendBigEndian(datagram, std::uint32_t{1 << 20U});
    appendBigEndian(datagram, sequence);
    appendBigEndian(datagram, static_cast<std::uint16_t>(expected_ - 1));
    append(datagram, payload);
    return datagram;
}

void UTPAcceptor::fillWindow() {
    while (!queue_.empty() && unacknowledged_.size() < packetsInFlight &&
           (unacknowledged_.size() + 1) * payloadSize <= window_) {
        unacknowledged_.push_back(encode(data, nextSequence_++, queue_.front()));
        queue_.pop_front();
        pass(false, unacknowledged_.back());
    }
}

void UTPAcceptor::resend() {
    for (const Bytes& datagram : unacknowledged_) pass(false, datagram);
}

void UTPAcceptor::sendPacket(Type type) { deliver(false, encode(type, nextSequence_++)); }

asio::awaitable<void> UTPAcceptor::send(Bytes bytes) {
    for (std::size_t at = 0; at < bytes.size(); at += payloadSize) {
        const ByteView chunk = ByteView(bytes).subspan(at, std::min(payloadSize, bytes.size() - at));
        queue_.emplace_back(chunk.begin(), chunk.end());
    }
    fillWindow();
    while (queue_.size() > packetsInFlight) co_await wait();
}

asio::awaitable<void> UTPAcceptor::wait() {
    co_await changed_.wait();
    if (isStopped_) throw std::runtime_error("stopped");
}

asio::awaitable<Bytes> UTPAcceptor::read(std::size_t count) {
    while (received_.size() < count) co_await wait();
    const auto end = received_.begin() + static_cast<std::ptrdiff_t>(count);
    Bytes bytes(received_.begin(), end);
    received_.erase(received_.begin(), end);
    co_return bytes;
}

}  // namespace skein
