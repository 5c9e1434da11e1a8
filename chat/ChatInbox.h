#pragma once

#include "chat/TalkData.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/MsgCenter/MsgCenter.h"

#include <boost/json/object.hpp>

#include <optional>
#include <string>

namespace skein {

/// Takes messages out of frames, has them stored, and publishes those that are new as ChatMessageReceived.
///
/// Owner: the chat client. Thread: its strand. Throws nothing but the end by cancellation: what the store cannot take
/// is logged, and published all the same.
class ChatInbox {
public:
    ChatInbox(Clock& clock, TalkData& talk, MsgCenter& messages, FileLogger& log)
        : clock_(clock), talk_(talk), messages_(messages), log_(log) {}

    asio::awaitable<void> takeChat(boost::json::object frame, std::string owner);
    asio::awaitable<void> takeGroupMessage(boost::json::object frame, std::string owner);
    /// The answer to a request for the messages with one user, or of one group.
    asio::awaitable<void> takeHistory(boost::json::object frame, std::string owner);
    asio::awaitable<void> takeGroupHistory(boost::json::object frame, std::string owner);
    /// A message of our own that has gone out, and is stored already.
    void takeSent(TalkRecord message);

    /// The media of the latest message that came with some, as JSON.
    const std::optional<std::string>& latestImage() const noexcept { return latestImage_; }
    void forgetImage() noexcept { latestImage_.reset(); }

    /// The messages in an answer's list; elements that are none are left out.
    static std::vector<ChatMessage> messagesIn(const boost::json::object& history, const std::string& owner);
    static std::vector<ChatMessage> groupMessagesIn(const boost::json::object& history);

private:
    asio::awaitable<void> take(std::vector<ChatMessage> messages, std::string owner, bool isFromHistory);
    asio::awaitable<void> takeOne(std::optional<ChatMessage> message, std::string owner);

    Clock& clock_;
    TalkData& talk_;
    MsgCenter& messages_;
    FileLogger& log_;
    std::optional<std::string> latestImage_;
};

}  // namespace skein
