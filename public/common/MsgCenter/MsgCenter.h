#pragma once

#include "public/common/MsgCenter/Subscription.h"
#include "public/common/MsgCenter/Topic.h"

#include <boost/asio/any_io_executor.hpp>

#include <memory>
#include <mutex>
#include <typeindex>
#include <unordered_map>
#include <utility>

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
    /// goes; the executor's context outlives it. The handler does not throw.
    template <class Message>
    [[nodiscard]] Subscription subscribe(const asio::any_io_executor& executor,
                                         typename Subscriber<Message>::Handler handler) {
        return topicOf<Message>()->subscribe(executor, std::move(handler));
    }

    template <class Message>
    void publish(const Message& message) {
        topicOf<Message>()->publish(message);
    }

private:
    template <class Message>
    std::shared_ptr<Topic<Message>> topicOf() {
        const std::lock_guard lock(mutex_);
        std::shared_ptr<void>& topic = topics_[typeid(Message)];
        if (!topic) topic = std::make_shared<Topic<Message>>();
        return std::static_pointer_cast<Topic<Message>>(topic);
    }

    std::mutex mutex_;
    std::unordered_map<std::type_index, std::shared_ptr<void>> topics_;
};

}  // namespace skein
