#pragma once

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/post.hpp>

#include <atomic>
#include <concepts>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

namespace skein {

namespace asio = boost::asio;

/// A message that can take in the one published after it: true when it did, and both go out as one.
template <class Message>
concept Absorbing = requires(Message earlier, const Message& later) {
    { earlier.absorb(later) } -> std::same_as<bool>;
};

/// The inside of MsgCenter: one handler, its executor, and the messages that wait for it.
///
/// Publishers and the handler's thread meet here, so there is a lock; the handler runs outside of it. Thread: any.
template <class Message>
class Subscriber final : public std::enable_shared_from_this<Subscriber<Message>> {
public:
    using Handler = std::function<void(const Message&)>;

    /// Messages that wait for one handler; beyond that the oldest is dropped.
    static constexpr std::size_t mostWaiting = 65'536;

    Subscriber(asio::any_io_executor executor, Handler handler)
        : executor_(std::move(executor)), handler_(std::move(handler)) {}

    /// From here on the handler is not called; on its own strand that is certain.
    void end() noexcept { hasEnded_.store(true, std::memory_order_release); }

    std::size_t lost() const {
        const std::lock_guard lock(mutex_);
        return lost_;
    }

    void enqueue(const Message& message) {
        const std::lock_guard lock(mutex_);
        if constexpr (Absorbing<Message>) {
            if (!waiting_.empty() && waiting_.back().absorb(message)) return;
        }
        if (waiting_.size() >= mostWaiting) {
            waiting_.pop_front();
            ++lost_;
        }
        waiting_.push_back(message);
        if (!std::exchange(isPosted_, true)) post();
    }

private:
    void post() {
        asio::post(executor_, [self = this->shared_from_this()] { self->deliver(); });
    }

    /// Hands over what waits now. What is published meanwhile has its turn later, so that others on the executor have
    /// theirs in between.
    void deliver() {
        std::deque<Message> batch;
        {
            const std::lock_guard lock(mutex_);
            batch.swap(waiting_);
        }
        for (const Message& message : batch) {
            if (hasEnded_.load(std::memory_order_acquire)) return;
            handler_(message);
        }
        const std::lock_guard lock(mutex_);
        isPosted_ = !waiting_.empty();
        if (isPosted_) post();
    }

    const asio::any_io_executor executor_;
    const Handler handler_;
    std::atomic<bool> hasEnded_{false};
    mutable std::mutex mutex_;
    std::deque<Message> waiting_;
    std::size_t lost_ = 0;
    bool isPosted_ = false;  // deliver() runs or will
};

}  // namespace skein
