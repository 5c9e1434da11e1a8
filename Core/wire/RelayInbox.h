#pragma once

#include "public/common/Bytes.h"
#include "public/common/Notifier.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <cstddef>
#include <deque>
#include <span>

namespace skein {

namespace asio = boost::asio;

/// What came through a relay and nobody has read yet, and who waits to read: served in the order they came, whatever
/// they ask for. Thread: the strand given, which keeps its fields as a lock would.
class RelayInbox {
public:
    /// Unread bytes above which no more are to be received: a peer that we read slowly is slowed down at its own end.
    static constexpr std::size_t comfortableBytes = std::size_t{4} << 20U;

    explicit RelayInbox(const asio::any_io_executor& strand) : strand_(strand), changed_(strand) {}

    void append(Bytes bytes);
    /// What is unread is abandoned, and reads fail from here on, those that wait included.
    void close() noexcept;
    bool isClosed() const noexcept { return isClosed_; }

    /// Returns when more is to be received: little is unread, or a reader waits for more than there is.
    asio::awaitable<void> waitForRoom();
    /// Waits until there are `least` bytes and all earlier reads were served, and returns how many were put into
    /// `into`. Throws RelayException (closed).
    asio::awaitable<std::size_t> read(std::span<std::uint8_t> into, std::size_t least);

private:
    struct Waiter {
        std::span<std::uint8_t> into;
        std::size_t least;
        Notifier resumed;
        std::size_t count = 0;
        bool isServed = false;
    };
    class Place;

    void drainWaiters();
    void failAllWaiters();
    std::size_t consumeBuffer(std::span<std::uint8_t> into);

    asio::any_io_executor strand_;
    std::deque<Bytes> buffer_;
    std::size_t usedOfFirst_ = 0;
    std::size_t unread_ = 0;
    std::deque<Waiter*> waiters_;
    bool isClosed_ = false;
    Notifier changed_;
};

}  // namespace skein
