#pragma once

#include "app/ChatHost.h"
#include "public/common/MsgCenter/MsgCenter.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <cstdint>
#include <set>
#include <vector>

namespace skein {

/// Publishes as ChatMessageReceived what the user sends from other processes of the same home: it looks into the store,
/// which they share. Messages that this process publishes itself are left out.
///
/// Owner: a command that listens without a daemon, which awaits `stop()`. `chat` and `center` outlive it. Thread: the
/// strand; made on any.
class SentMessageWatch {
public:
    static constexpr std::chrono::milliseconds period{500};

    SentMessageWatch(const Strand& strand, ChatHost& chat, MsgCenter& center);

    /// Returns when nothing of it runs any more. Thread: any.
    asio::awaitable<void> stop();

private:
    asio::awaitable<void> watch();
    asio::awaitable<void> look();
    asio::awaitable<void> shutDown();

    ChatHost& chat_;
    MsgCenter& center_;
    std::int64_t lastSeen_ = -1;       ///< -1: not looked yet
    std::vector<TalkRecord> waiting_;  ///< seen at the last look; a message that cannot be sent is taken back soon
    std::set<std::int64_t> published_;
    Subscription subscription_;
    TaskGroup tasks_;
};

}  // namespace skein
