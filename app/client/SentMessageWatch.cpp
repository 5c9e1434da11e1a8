#include "app/client/SentMessageWatch.h"

#include "chat/ChatMessageReceived.h"

#include <string>
#include <utility>

namespace skein {

SentMessageWatch::SentMessageWatch(const Strand& strand, ChatHost& chat, MsgCenter& center)
    : chat_(chat), center_(center), tasks_(strand) {
    subscription_ = center.subscribe<ChatMessageReceived>(
        strand, [this](const ChatMessageReceived& received) { published_.insert(received.message.id); });
    tasks_.spawn(watch());
}

asio::awaitable<void> SentMessageWatch::watch() {
    for (;;) {
        std::string failure;
        try {
            co_await look();
        } catch (const DatabaseException& error) {
            failure = error.what();
        }
        if (!failure.empty()) chat_.host().log().warning("[Chat] the store cannot be read: ", failure);
        co_await chat_.host().clock().sleep(period);
    }
}

asio::awaitable<void> SentMessageWatch::look() {
    if (lastSeen_ < 0) lastSeen_ = co_await chat_.talk().newestId();
    const std::vector<TalkRecord> seenBefore = std::exchange(waiting_, {});
    const std::string owner = co_await chat_.owner();
    waiting_ = co_await chat_.talk().sentAfter(owner, lastSeen_);
    if (!waiting_.empty()) lastSeen_ = waiting_.back().id;
    for (const TalkRecord& message : seenBefore) {
        if (published_.contains(message.id)) continue;
        const auto kept = co_await chat_.talk().message(owner, message.id);
        if (!kept) continue;
        const ChatMessageReceived sent{*kept, false};
        center_.publish(sent);
    }
}

asio::awaitable<void> SentMessageWatch::stop() { return tasks_.finish(shutDown()); }

asio::awaitable<void> SentMessageWatch::shutDown() {
    subscription_.end();  // here, on the strand, no handler runs meanwhile
    co_await tasks_.stop();
}

}  // namespace skein
