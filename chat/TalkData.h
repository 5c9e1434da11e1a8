#pragma once

#include "chat/ChatMessage.h"
#include "chat/TalkConversation.h"
#include "public/common/Database.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace skein {

namespace asio = boost::asio;

/// The chat store: one-line records, the text of each beside it. It answers without a server.
///
/// Each record belongs to `owner`, the user who was signed in: accounts on one machine do not see each other's. A
/// message is stored once: another one with the same sender, receiver, timestamp and text is the same. What we send is
/// stored with our own clock's time, as the server does not tell its own; when the message comes back in a history, the
/// nearest of our own with that text (within `clockTolerance`) takes the server's time instead of standing there twice.
/// Owner: the program; it outlives every call. Thread: any; file calls are made on the disk pool, but for the opening,
/// which the constructor does. All operations throw DatabaseException.
class TalkData {
public:
    static constexpr std::int64_t largestPage = 200;
    /// Of texts and records in a page, unless its first message is larger by itself.
    static constexpr std::int64_t largestPageBytes = std::int64_t{4} << 20U;
    /// Of a conversation's last text: a list shows a line of each.
    static constexpr std::int64_t previewCharacters = 200;
    static constexpr std::int64_t clockToleranceMilliseconds = 300'000;

    TalkData(const std::filesystem::path& file, asio::any_io_executor disk, FileLogger& log);

    /// Stores what the server told, all or none; returns those that are new, in their order.
    asio::awaitable<std::vector<TalkRecord>> append(std::string owner, std::vector<ChatMessage> messages);
    /// Stores what is about to be sent; returns its id, nothing when the same is there already.
    asio::awaitable<std::optional<std::int64_t>> appendOwn(std::string owner, ChatMessage message);
    /// Takes back what could not be sent, unless the server has told it since.
    asio::awaitable<void> removeOwn(std::int64_t id);

    /// The newest messages with a user or group, both directions, oldest first; those before `before` when it is given.
    asio::awaitable<std::vector<TalkRecord>> history(std::string owner, TalkPartner partner, std::int64_t limit,
                                                     std::optional<TalkPlace> before = std::nullopt);
    /// One message; nothing when `owner` has no such one.
    asio::awaitable<std::optional<TalkRecord>> message(std::string owner, std::int64_t id);
    /// The id of the newest record of all; 0 when there is none.
    asio::awaitable<std::int64_t> newestId();
    /// What `owner` sent, stored after the record `id`; the oldest `largestPage` of it, in its order.
    asio::awaitable<std::vector<TalkRecord>> sentAfter(std::string owner, std::int64_t id);
    /// The latest first, at most `largestPage`.
    asio::awaitable<std::vector<TalkConversation>> conversations(std::string owner);
    /// What was sent up to `until` (milliseconds since 1970) counts as read; an earlier mark does not take back a
    /// later.
    asio::awaitable<void> markRead(std::string owner, TalkPartner partner, std::int64_t until);

private:
    const asio::any_io_executor disk_;
    Database database_;
};

}  // namespace skein
