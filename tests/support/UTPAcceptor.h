#pragma once

#include "Core/wire/PeerAddress.h"
#include "public/common/Bytes.h"
#include "public/common/Clock.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/ip/udp.hpp>

#include <deque>
#include <random>
#include <vector>

namespace skein {

/// The accepting side of one uTP connection, written from BEP 29 alone, behind a path that is as bad as the test says.
/// It sends a window of packets at once, all of them again after a loss, and drops what acknowledges more than it sent.
class UTPAcceptor {
public:
    enum Type : std::uint8_t { data, fin, state, reset, syn };
    struct Path {
        double loss = 0;  ///< the fractions of the datagrams, either way
        double reordering = 0;
        double duplication = 0;
        Clock::Duration delay{};
        bool firstDataHasStateNumber = true;  ///< as most stacks do; otherwise the number after it
        std::uint16_t firstSequence = 1000;
    };
    struct Packet {
        Type type = data;
        std::uint16_t connectionID = 0;
        std::uint16_t sequence = 0;
        std::uint16_t acknowledgement = 0;
        std::size_t size = 0;  ///< of the payload
    };

    UTPAcceptor(const asio::any_io_executor& executor, Clock& clock, Path path);
    PeerAddress address() const { return {"127.0.0.1", socket_.local_endpoint().port()}; }
    /// Returns when little of it waits to be sent.
    asio::awaitable<void> send(Bytes bytes);
    asio::awaitable<Bytes> read(std::size_t count);
    /// Once, past the path, with the next number.
    void sendPacket(Type type);
    asio::awaitable<void> stop();

    std::vector<Packet> seen;  ///< what came through

private:
    asio::awaitable<void> receiveLoop();
    asio::awaitable<void> resendLoop();
    asio::awaitable<void> later(Clock::Duration delay, bool isIncoming, Bytes datagram);
    asio::awaitable<void> wait();
    void pass(bool isIncoming, Bytes datagram);
    void deliver(bool isIncoming, const Bytes& datagram);
    void onPacket(const Packet& packet, std::uint32_t window, ByteView payload);
    Bytes encode(Type type, std::uint16_t sequence, const Bytes& payload = {}) const;
    void fillWindow();
    void resend();
    bool isChosen(double fraction) { return std::uniform_real_distribution<>(0, 1)(choices_) < fraction; }

    Clock& clock_;
    const Path path_;
    std::minstd_rand choices_{1};
    std::uint16_t connectionID_ = 0;
    std::uint16_t expected_ = 0;
    std::uint16_t nextSequence_;
    std::deque<Bytes> queue_;
    std::deque<Bytes> unacknowledged_;
    std::size_t duplicates_ = 0;
    bool hasProgressed_ = false;
    bool isStopped_ = false;
    std::uint32_t window_ = 0;
    Bytes received_;
    TaskGroup tasks_;
    Notifier changed_;
    asio::ip::udp::socket socket_;
    asio::ip::udp::endpoint remote_;
};

}  // namespace skein
