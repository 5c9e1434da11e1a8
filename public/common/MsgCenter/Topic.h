#pragma once

#include "public/common/MsgCenter/Subscriber.h"
#include "public/common/MsgCenter/Subscription.h"

#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace skein {

/// The inside of MsgCenter: all who listen to one type of messages. Thread: any.
template <class Message>
class Topic final : public std::enable_shared_from_this<Topic<Message>> {
public:
    Subscription subscribe(const asio::any_io_executor& executor, typename Subscriber<Message>::Handler handler) {
        auto subscriber = std::make_shared<Subscriber<Message>>(executor, std::move(handler));
        const std::lock_guard lock(mutex_);
        subscribers_.push_back(subscriber);
        return Subscription(std::make_unique<Place>(this->weak_from_this(), std::move(subscriber)));
    }

    void publish(const Message& message) {
        // Under the lock, so that all subscribers see the messages of several publishers in one order.
        const std::lock_guard lock(mutex_);
        for (const auto& subscriber : subscribers_) subscriber->enqueue(message);
    }

private:
    using SubscriberPointer = std::shared_ptr<Subscriber<Message>>;

    /// Takes the subscriber out when the subscription ends: handler and executor are not kept any longer.
    class Place final : public Subscription::Link {
    public:
        Place(std::weak_ptr<Topic> topic, SubscriberPointer subscriber)
            : topic_(std::move(topic)), subscriber_(std::move(subscriber)) {}
        Place(const Place&) = delete;
        Place& operator=(const Place&) = delete;
        ~Place() override {
            subscriber_->end();
            if (const auto topic = topic_.lock()) topic->remove(subscriber_);
        }
        std::size_t lost() const override { return subscriber_->lost(); }

    private:
        const std::weak_ptr<Topic> topic_;
        const SubscriberPointer subscriber_;  // last to go, and not under the topic's lock
    };

    void remove(const SubscriberPointer& subscriber) {
        const std::lock_guard lock(mutex_);
        std::erase(subscribers_, subscriber);
    }

    std::mutex mutex_;
    std::vector<SubscriberPointer> subscribers_;
};

}  // namespace skein
