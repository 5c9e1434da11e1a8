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
constexpr std::string_view latestPartners = R"(
    SELECT partner, isGroup, sum(sender <> owner AND sentAt > coalesce(
        (SELECT sentAt FROM readUntil r
         WHERE r.owner = talk.owner AND r.isGroup = talk.isGroup AND r.partner = talk.partner), -1))
    FROM talk WHERE owner = ?1 GROUP BY isGroup, partner ORDER BY max(sentAt) DESC, max(id) DESC LIMIT ?2)";
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

bool store(const Database::Run& run, const std::string& owner, const ChatMessage& message) {
    if (message.from == owner && !run(confirm, columnsOf(owner, message, TalkData::clockToleranceMilliseconds)).empty())
        return false;
    return !run(insert, columnsOf(owner, message, 1)).empty();
}

std::int64_t numberIn(const DatabaseValue& value) {
    const auto* const number = std::get_if<std::int64_t>(&value);
    return number == nullptr ? 0 : *number;
}

std::string textIn(DatabaseValue& value) {
    auto* const text = std::get_if<std::string>(&value);
    return text == nullptr ? std::string() : std::move(*text);
}

}  // namespace

TalkData::TalkData(const std::filesystem::path& file, asio::any_io_executor disk, FileLogger& log)
    : disk_(std::move(disk)), database_(file, schema, log) {}

asio::awaitable<std::vector<ChatMessage>> TalkData::append(std::string owner, std::vector<ChatMessage> messages) {
    auto work = [this, owner = std::move(owner), messages = std::move(messages)] {
        std::vector<ChatMessage> fresh;
        database_.transaction([&](const Database::Run& run) {
            fresh.clear();
            for (const ChatMessage& message : messages)
                if (store(run, owner, message)) fresh.push_back(message);
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
                                                           std::optional<TalkRecord> before) {
    constexpr std::int64_t end = std::numeric_limits<std::int64_t>::max();
    const std::vector<DatabaseValue> values{std::move(owner),          std::int64_t{partner.isGroup ? 1 : 0},
                                            std::move(partner.id),     before ? before->sentAt : end,
                                            before ? before->id : end, std::clamp<std::int64_t>(limit, 0, largestPage),
                                            largestPageBytes};
    auto work = [this, values] {
        std::vector<TalkRecord> records;
        for (DatabaseRow& row : database_.run(page, values))
            records.push_back({numberIn(row[0]), textIn(row[1]), textIn(row[2]), numberIn(row[3]) != 0,
                               numberIn(row[4]), textIn(row[5]), textIn(row[6])});
        return records;
    };
    return runOn(disk_, std::move(work));
}

asio::awaitable<std::vector<TalkPartner>> TalkData::partners(std::string owner) {
    auto work = [this, owner = std::move(owner)] {
        std::vector<TalkPartner> partners;
        for (DatabaseRow& row : database_.run(latestPartners, {owner, largestPage}))
            partners.push_back({textIn(row[0]), numberIn(row[1]) != 0, numberIn(row[2])});
        return partners;
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
