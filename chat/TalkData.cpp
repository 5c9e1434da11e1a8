#include "chat/TalkData.h"

#include "public/common/RunOn.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace skein {

namespace {

constexpr const char* schema = R"(
    CREATE TABLE IF NOT EXISTS talk(
        id INTEGER PRIMARY KEY AUTOINCREMENT, owner TEXT NOT NULL, partner TEXT NOT NULL, isGroup INTEGER NOT NULL,
        sender TEXT NOT NULL, receiver TEXT NOT NULL, timestamp TEXT NOT NULL, sentAt INTEGER NOT NULL,
        text TEXT NOT NULL, record TEXT NOT NULL, isConfirmed INTEGER NOT NULL);
    CREATE UNIQUE INDEX IF NOT EXISTS talkOnce ON talk(owner, isGroup, sender, receiver, timestamp, text);
    CREATE INDEX IF NOT EXISTS talkInOrder ON talk(owner, isGroup, partner, sentAt, id);
    CREATE TABLE IF NOT EXISTS readUntil(
        owner TEXT NOT NULL, isGroup INTEGER NOT NULL, partner TEXT NOT NULL, sentAt INTEGER NOT NULL,
        PRIMARY KEY(owner, isGroup, partner));
)";
constexpr std::string_view insert = R"(
    INSERT OR IGNORE INTO talk(owner, partner, isGroup, sender, receiver, timestamp, sentAt, text, record, isConfirmed)
    VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10) RETURNING id)";
// One of our own that the server had not told yet becomes the one it tells now, unless it has told that before.
constexpr std::string_view confirm = R"(
    UPDATE talk SET timestamp = ?6, sentAt = ?7, record = ?9, isConfirmed = 1 WHERE id = (
        SELECT id FROM talk WHERE owner = ?1 AND isGroup = ?3 AND sender = ?4 AND receiver = ?5 AND text = ?8
            AND isConfirmed = 0 AND abs(sentAt - ?7) <= ?10
        ORDER BY abs(sentAt - ?7), id LIMIT 1)
    AND NOT EXISTS(
        SELECT 1 FROM talk WHERE owner = ?1 AND isGroup = ?3 AND sender = ?4 AND receiver = ?5 AND timestamp = ?6
            AND text = ?8 AND isConfirmed = 1)
    RETURNING id)";
constexpr std::string_view page = R"(
    SELECT id, sender, receiver, isGroup, sentAt, text, record FROM (
        SELECT *, sum(length(CAST(text AS BLOB)) + length(CAST(record AS BLOB)))
            OVER (ORDER BY sentAt DESC, id DESC) AS bytes, row_number() OVER (ORDER BY sentAt DESC, id DESC) AS place
        FROM (SELECT * FROM talk WHERE owner = ?1 AND isGroup = ?2 AND partner = ?3 AND (sentAt, id) < (?4, ?5)
              ORDER BY sentAt DESC, id DESC LIMIT ?6))
    WHERE bytes <= ?7 OR place = 1 ORDER BY sentAt, id)";
constexpr std::string_view one = R"(
    SELECT id, sender, receiver, isGroup, sentAt, text, record FROM talk WHERE owner = ?1 AND id = ?2)";
constexpr std::string_view sent = R"(
    SELECT id, sender, receiver, isGroup, sentAt, text, record FROM talk
    WHERE id > ?2 AND owner = ?1 AND sender = ?1 ORDER BY id LIMIT ?3)";
constexpr std::string_view latestConversations = R"(
    WITH latest AS (
        SELECT partner, isGroup, max(sentAt) AS lastTime, sum(sender <> owner AND sentAt > coalesce(
            (SELECT sentAt FROM readUntil r
             WHERE r.owner = talk.owner AND r.isGroup = talk.isGroup AND r.partner = talk.partner), -1)) AS unread
        FROM talk WHERE owner = ?1 GROUP BY isGroup, partner ORDER BY lastTime DESC LIMIT ?2)
    SELECT id, sender, receiver, t.isGroup, sentAt, substr(text, 1, ?3), record, latest.partner, unread
    FROM latest JOIN talk t ON t.id = (
        SELECT id FROM talk WHERE owner = ?1 AND isGroup = latest.isGroup AND partner = latest.partner
        ORDER BY sentAt DESC, id DESC LIMIT 1)
    ORDER BY sentAt DESC, id DESC)";
constexpr std::string_view mark = R"(
    INSERT INTO readUntil(owner, isGroup, partner, sentAt) VALUES(?1, ?2, ?3, ?4)
    ON CONFLICT DO UPDATE SET sentAt = max(sentAt, excluded.sentAt))";

std::vector<DatabaseValue> columnsOf(const std::string& owner, const ChatMessage& message, std::int64_t last) {
    return {owner,
            message.partnerOf(owner),
            std::int64_t{message.isGroup ? 1 : 0},
            message.from,
            message.to,
            message.timestamp,
            message.sentAt(),
            message.text,
            message.recordLine(),
            last};
}

std::int64_t numberIn(const DatabaseValue& value) {
    const auto* const number = std::get_if<std::int64_t>(&value);
    return number == nullptr ? 0 : *number;
}

std::string textIn(DatabaseValue& value) {
    auto* const text = std::get_if<std::string>(&value);
    return text == nullptr ? std::string() : std::move(*text);
}

/// The first columns of a row are those of `page`.
TalkRecord recordIn(DatabaseRow& row) {
    return {numberIn(row[0]), textIn(row[1]), textIn(row[2]), numberIn(row[3]) != 0,
            numberIn(row[4]), textIn(row[5]), textIn(row[6])};
}

/// The id of a message that is new to the store.
std::optional<std::int64_t> store(const Database::Run& run, const std::string& owner, const ChatMessage& message) {
    if (message.from == owner && !run(confirm, columnsOf(owner, message, TalkData::clockToleranceMilliseconds)).empty())
        return std::nullopt;
    const auto rows = run(insert, columnsOf(owner, message, 1));
    return rows.empty() ? std::nullopt : std::optional(numberIn(rows[0][0]));
}

}  // namespace

TalkData::TalkData(const std::filesystem::path& file, asio::any_io_executor disk, FileLogger& log)
    : disk_(std::move(disk)), database_(file, schema, log) {}

asio::awaitable<std::vector<TalkRecord>> TalkData::append(std::string owner, std::vector<ChatMessage> messages) {
    auto work = [this, owner = std::move(owner), messages = std::move(messages)] {
        std::vector<TalkRecord> fresh;
        database_.transaction([&](const Database::Run& run) {
            fresh.clear();
            for (const ChatMessage& message : messages)
                if (const auto id = store(run, owner, message)) fresh.push_back(TalkRecord::of(message, *id));
        });
        return fresh;
    };
    return runOn(disk_, std::move(work));
}

asio::awaitable<std::optional<std::int64_t>> TalkData::appendOwn(std::string owner, ChatMessage message) {
    auto work = [this, owner = std::move(owner), message = std::move(message)]() -> std::optional<std::int64_t> {
        const auto rows = database_.run(insert, columnsOf(owner, message, 0));
        if (rows.empty()) return std::nullopt;
        return numberIn(rows[0][0]);
    };
    return runOn(disk_, std::move(work));
}

asio::awaitable<void> TalkData::removeOwn(std::int64_t id) {
    return runOn(disk_, [this, id] { database_.run("DELETE FROM talk WHERE id = ? AND isConfirmed = 0", {id}); });
}

asio::awaitable<std::vector<TalkRecord>> TalkData::history(std::string owner, TalkPartner partner, std::int64_t limit,
                                                           std::optional<TalkPlace> before) {
    constexpr std::int64_t end = std::numeric_limits<std::int64_t>::max();
    const std::vector<DatabaseValue> values{std::move(owner),          std::int64_t{partner.isGroup ? 1 : 0},
                                            std::move(partner.id),     before ? before->sentAt : end,
                                            before ? before->id : end, std::clamp<std::int64_t>(limit, 0, largestPage),
                                            largestPageBytes};
    auto work = [this, values] {
        std::vector<TalkRecord> records;
        for (DatabaseRow& row : database_.run(page, values)) records.push_back(recordIn(row));
        return records;
    };
    return runOn(disk_, std::move(work));
}

asio::awaitable<std::optional<TalkRecord>> TalkData::message(std::string owner, std::int64_t id) {
    auto work = [this, owner = std::move(owner), id]() -> std::optional<TalkRecord> {
        auto rows = database_.run(one, {owner, id});
        if (rows.empty()) return std::nullopt;
        return recordIn(rows[0]);
    };
    return runOn(disk_, std::move(work));
}

asio::awaitable<std::int64_t> TalkData::newestId() {
    return runOn(disk_, [this] { return numberIn(database_.run("SELECT coalesce(max(id), 0) FROM talk")[0][0]); });
}

asio::awaitable<std::vector<TalkRecord>> TalkData::sentAfter(std::string owner, std::int64_t id) {
    auto work = [this, owner = std::move(owner), id] {
        std::vector<TalkRecord> records;
        for (DatabaseRow& row : database_.run(sent, {owner, id, largestPage})) records.push_back(recordIn(row));
        return records;
    };
    return runOn(disk_, std::move(work));
}

asio::awaitable<std::vector<TalkConversation>> TalkData::conversations(std::string owner) {
    auto work = [this, owner = std::move(owner)] {
        std::vector<TalkConversation> conversations;
        for (DatabaseRow& row : database_.run(latestConversations, {owner, largestPage, previewCharacters})) {
            TalkRecord last = recordIn(row);
            conversations.push_back({{textIn(row[7]), last.isGroup}, numberIn(row[8]), std::move(last)});
        }
        return conversations;
    };
    return runOn(disk_, std::move(work));
}

asio::awaitable<void> TalkData::markRead(std::string owner, TalkPartner partner, std::int64_t until) {
    auto work = [this, owner = std::move(owner), partner = std::move(partner), until] {
        database_.run(mark, {owner, std::int64_t{partner.isGroup ? 1 : 0}, partner.id, until});
    };
    return runOn(disk_, std::move(work));
}

}  // namespace skein
