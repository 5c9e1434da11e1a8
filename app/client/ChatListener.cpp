#include "app/client/ChatListener.h"

#include "app/api/ChatEvents.h"

#include <utility>

namespace skein {

ChatListener::ChatListener(const Strand& strand, MsgCenter& center, WatchOutput& output, WatchOutput::End end)
    : output_(output), end_(std::move(end)), changed_(strand), tasks_(strand) {
    listenTo<ChatMessageReceived>(center);
    listenTo<ChatConversationRead>(center);
    listenTo<ChatStatusChanged>(center);
    tasks_.spawn(print());
}

template <class Message>
void ChatListener::listenTo(MsgCenter& center) {
    subscriptions_.push_back(center.subscribe<Message>(tasks_.strand(), [this](const Message& message) {
        if (waiting_.size() >= mostWaiting) waiting_.pop_front();
        waiting_.push_back(eventOf(message));
        changed_.notify();
    }));
}

asio::awaitable<void> ChatListener::print() {
    std::exception_ptr failure;
    try {
        for (;;) {
            while (waiting_.empty()) co_await changed_.wait();
            boost::json::object message = std::move(waiting_.front());
            waiting_.pop_front();
            co_await output_.take(std::move(message));
        }
    } catch (...) {
        failure = std::current_exception();
    }
    end_(failure);
}

asio::awaitable<void> ChatListener::stop() { return tasks_.finish(shutDown()); }

asio::awaitable<void> ChatListener::shutDown() {
    subscriptions_.clear();  // here, on the strand, no handler runs meanwhile
    co_await tasks_.stop();
}

}  // namespace skein
