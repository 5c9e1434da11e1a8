#include "Core/wire/RelayInbox.h"

#include "Core/wire/RelayError.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace {

/// Messages are joined up to this size, so that many tiny ones cost no more memory than their bytes.
constexpr std::size_t joinedSize = std::size_t{64} << 10U;

}  // namespace

/// A reader's place in the queue, which it also leaves when it gives up: those behind may then be served.
class RelayInbox::Place {
public:
    Place(RelayInbox& inbox, Waiter& waiter) : inbox_(inbox), waiter_(waiter) {
        inbox_.waiters_.push_back(&waiter_);
        inbox_.changed_.notify();
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() {
        std::erase(inbox_.waiters_, &waiter_);
        inbox_.drainWaiters();
    }

private:
    RelayInbox& inbox_;
    Waiter& waiter_;
};

void RelayInbox::append(Bytes bytes) {
    if (isClosed_ || bytes.empty()) return;
    unread_ += bytes.size();
    if (!buffer_.empty() && buffer_.back().size() + bytes.size() <= joinedSize) {
        skein::append(buffer_.back(), bytes);
    } else {
        buffer_.push_back(std::move(bytes));
    }
    drainWaiters();
}

void RelayInbox::close() noexcept {
    isClosed_ = true;
    buffer_.clear();
    unread_ = 0;
    failAllWaiters();
    changed_.notify();
}

asio::awaitable<void> RelayInbox::waitForRoom() {
    // Whoever waits, waits for more than is here.
    while (!isClosed_ && waiters_.empty() && unread_ > comfortableBytes) co_await changed_.wait();
}

asio::awaitable<std::size_t> RelayInbox::read(std::span<std::uint8_t> into, std::size_t least) {
    if (isClosed_) throw RelayException(RelayError::closed);
    if (waiters_.empty() && unread_ >= least) co_return consumeBuffer(into);
    Waiter waiter{into, least, Notifier(strand_)};
    const Place place(*this, waiter);
    co_await waiter.resumed.wait();
    if (!waiter.isServed) throw RelayException(RelayError::closed);
    co_return waiter.count;
}

void RelayInbox::drainWaiters() {
    while (!isClosed_ && !waiters_.empty() && unread_ >= waiters_.front()->least) {
        Waiter& waiter = *waiters_.front();
        waiters_.pop_front();
        waiter.count = consumeBuffer(waiter.into);
        waiter.isServed = true;
        waiter.resumed.notify();
    }
}

void RelayInbox::failAllWaiters() {
    for (Waiter* const waiter : std::exchange(waiters_, {})) waiter->resumed.notify();
}

std::size_t RelayInbox::consumeBuffer(std::span<std::uint8_t> into) {
    const std::size_t count = std::min(into.size(), unread_);
    std::uint8_t* to = into.data();
    for (std::size_t left = count; left > 0;) {
        const ByteView first = ByteView(buffer_.front()).subspan(usedOfFirst_);
        const std::size_t taken = std::min(left, first.size());
        to = std::copy_n(first.begin(), taken, to);
        left -= taken;
        usedOfFirst_ += taken;
        if (taken < first.size()) continue;
        buffer_.pop_front();
        usedOfFirst_ = 0;
    }
    unread_ -= count;
    if (count > 0) changed_.notify();
    return count;
}

}  // namespace skein
