#pragma once

#include "public/common/MsgCenter/Subscriber.h"
#include "public/common/MsgCenter/Subscription.h"

#include <boost/asio/any_io_executor.hpp>

#include <memory>
#include <mutex>
#include <typeindex>
#include <unordered_map>
#include <utility>
#include <vector>

namespace skein {

/// Publish and subscribe: who announces something need not know who listens. A topic is the type of its messages.
///
/// A subscriber gets the messages published since it subscribed, in their order, each on its own executor and never
/// within `publish`. A message type with `bool absorb(const Message& later)` is joined with its successor while it
/// waits. What waits for a slow handler is bounded (`Subscriber::mostWaiting`, `Subscription::lost`).
/// Owner: the program; it outlives those that publish. Thread: any.
class MsgCenter {
public:
    MsgCenter() = default;
    MsgCenter(const MsgCenter&) = delete;
    MsgCenter& operator=(const MsgCenter&) = delete;

    /// Calls `handler` on `executor`, a strand or a context with one thread, for each message until the subscription
    /// goes. The handler does not throw.
    template <class Message>
    [[nodiscard]] Subscription subscribe(const asio::any_io_executor& executor,
                                         typename Subscriber<Message>::Handler handler) {
        auto subscriber = std::make_shared<Subscriber<Message>>(executor, std::move(handler));
        const std::lock_guard lock(mutex_);
        auto& topic = topicOf<Message>();
        std::erase_if(topic.subscribers, [](const auto& other) { return other->hasEnded(); });
        topic.subscribers.push_back(subscriber);
        return Subscription(std::move(subscriber));
    }

    template <class Message>
    void publish(const Message& message) {
        // Under the lock, so that all subscribers see the messages of several publishers in one order.
        const std::lock_guard lock(mutex_);
        const auto found = topics_.find(typeid(Message));
        if (found == topics_.end()) return;
        auto& subscribers = static_cast<Topic<Message>&>(*found->second).subscribers;
        std::erase_if(subscribers, [](const auto& subscriber) { return subscriber->hasEnded(); });
        for (const auto& subscriber : subscribers) subscriber->enqueue(message);
    }

private:
    struct AnyTopic {
        AnyTopic() = default;
        AnyTopic(const AnyTopic&) = delete;
        AnyTopic& operator=(const AnyTopic&) = delete;
        virtual ~AnyTopic() = default;
    };
    template <class Message>
    struct Topic final : AnyTopic {
        std::vector<std::shared_ptr<Subscriber<Message>>> subscribers;
    };

    template <class Message>
    Topic<Message>& topicOf() {
        std::unique_ptr<AnyTopic>& topic = topics_[typeid(Message)];
        if (!topic) topic = std::make_unique<Topic<Message>>();
        return static_cast<Topic<Message>&>(*topic);
    }

    std::mutex mutex_;
    std::unordered_map<std::type_index, std::unique_ptr<AnyTopic>> topics_;
};

}  // namespace skein
