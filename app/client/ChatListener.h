#pragma once

#include "app/client/WatchOutput.h"
#include "public/common/MsgCenter/MsgCenter.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <cstddef>
#include <deque>
#include <vector>

namespace skein {

/// Carries what happens in the chat of this process to an output, one message after the other.
///
/// Owner: the command, which awaits `stop()`. `center` and `output` outlive it. Thread: the strand; made on any.
class ChatListener {
public:
    /// Messages that wait for a slow output; beyond that the oldest gives way. The store has them all.
    static constexpr std::size_t mostWaiting = 10'000;

    /// `end` is told, on the strand, why nothing is printed any more.
    ChatListener(const Strand& strand, MsgCenter& center, WatchOutput& output, WatchOutput::End end);

    /// Returns when nothing of it runs any more. Thread: any.
    asio::awaitable<void> stop();

private:
    template <class Message>
    void listenTo(MsgCenter& center);
    asio::awaitable<void> print();
    asio::awaitable<void> shutDown();

    WatchOutput& output_;
    const WatchOutput::End end_;
    std::deque<boost::json::object> waiting_;
    Notifier changed_;
    std::vector<Subscription> subscriptions_;
    TaskGroup tasks_;
};

}  // namespace skein
