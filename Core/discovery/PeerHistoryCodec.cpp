#include "Core/discovery/PeerHistoryCodec.h"

#include "public/common/PlainJSON.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/value.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <utility>

namespace skein {

namespace {

namespace json = boost::json;
using Milliseconds = std::chrono::milliseconds;

/// 2001-01-01 00:00 UTC, from where stored dates count.
constexpr Clock::WallTime reference{std::chrono::seconds(978'307'200)};
/// 220 years to either side: what a damaged value says must not overflow a date.
constexpr double furthestSeconds = 7e9;

double secondsOf(Clock::WallTime date) {
    return static_cast<double>(std::chrono::round<Milliseconds>(date - reference).count()) / 1000.0;
}

json::object encode(const PeerHistoryEntry& entry) {
    json::object fields{{"host", entry.host},
                        {"port", entry.port},
                        {"source", textOf(entry.source)},
                        {"successCount", entry.successCount},
                        {"failureCount", entry.failureCount}};
    if (entry.lastSuccessAt) fields["lastSuccessAt"] = secondsOf(*entry.lastSuccessAt);
    if (entry.lastFailureAt) fields["lastFailureAt"] = secondsOf(*entry.lastFailureAt);
    return fields;
}

std::string encode(const PeerHistory& history) {
    json::object torrents;
    for (const auto& [infoHash, entries] : history.torrents()) {
        json::array list;
        for (const PeerHistoryEntry& entry : entries) list.emplace_back(encode(entry));
        torrents[infoHash] = std::move(list);
    }
    return plainJSON(torrents);
}

/// The integer at `key`, from 0 to `most`.
std::optional<std::int64_t> numberIn(const json::object& fields, std::string_view key, std::int64_t most) {
    const json::value* const value = fields.if_contains(key);
    if (value == nullptr || !value->is_int64()) return std::nullopt;
    const std::int64_t number = value->get_int64();
    return number < 0 || number > most ? std::nullopt : std::optional(number);
}

std::optional<std::string_view> textIn(const json::object& fields, std::string_view key) {
    const json::value* const value = fields.if_contains(key);
    if (value == nullptr || !value->is_string()) return std::nullopt;
    return std::string_view(value->get_string());
}

std::optional<Clock::WallTime> dateIn(const json::object& fields, std::string_view key) {
    const json::value* const value = fields.if_contains(key);
    if (value == nullptr || !value->is_number()) return std::nullopt;
    const double seconds = value->to_number<double>();
    if (std::abs(seconds) > furthestSeconds) return std::nullopt;
    return reference + Milliseconds(std::llround(seconds * 1000));
}

std::optional<PeerHistoryEntry> decodeEntry(const json::value& value) {
    if (!value.is_object()) return std::nullopt;
    const json::object& fields = value.get_object();
    const auto host = textIn(fields, "host");
    const auto port = numberIn(fields, "port", std::numeric_limits<std::uint16_t>::max());
    const auto source = peerSourceFrom(textIn(fields, "source").value_or(std::string_view()));
    const auto successes = numberIn(fields, "successCount", std::numeric_limits<std::int64_t>::max());
    const auto failures = numberIn(fields, "failureCount", std::numeric_limits<std::int64_t>::max());
    if (!host || host->empty() || !port || *port == 0 || !source || !successes || !failures) return std::nullopt;
    PeerHistoryEntry entry{std::string(*host), static_cast<std::uint16_t>(*port), *source, *successes, *failures};
    entry.lastSuccessAt = dateIn(fields, "lastSuccessAt");
    entry.lastFailureAt = dateIn(fields, "lastFailureAt");
    return entry;
}

}  // namespace

PeerHistory decodePeerHistory(std::string_view text) {
    boost::system::error_code error;
    const json::value value = json::parse(text, error);
    if (error || !value.is_object()) return {};
    PeerHistory::Torrents torrents;
    for (const auto& [infoHash, list] : value.get_object()) {
        if (!list.is_array()) continue;
        PeerHistory::Entries entries;
        for (const json::value& item : list.get_array())
            if (auto entry = decodeEntry(item)) entries.push_back(*std::move(entry));
        if (!entries.empty()) torrents.emplace(infoHash, std::move(entries));
    }
    return PeerHistory(std::move(torrents));
}

std::string encodePeerHistory(PeerHistory& history, std::size_t maxBytes) {
    std::string text = encode(history);
    if (text.size() <= maxBytes) return text;
    // An entry takes its comma along; the name of a torrent that is left without entries is not counted, so that a
    // few bytes more are made free than are needed.
    std::size_t size = text.size();
    history.dropWorst([&](const PeerHistoryEntry& next) {
        if (size <= maxBytes) return true;
        size -= std::min(size, plainJSON(encode(next)).size());
        return false;
    });
    return encode(history);
}

}  // namespace skein
