#include "tests/support/ServiceLedger.h"

#include <boost/json/array.hpp>
#include <boost/json/value.hpp>

#include <algorithm>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace skein {

namespace {

namespace json = boost::json;

std::string text(const json::object& fields, const char* key) { return std::string(fields.at(key).as_string()); }

std::string today() {
    const std::time_t time = std::time(nullptr);
    std::tm parts{};
    std::ostringstream date;
    date << std::put_time(gmtime_r(&time, &parts), "%FT%TZ");
    return date.str();
}

std::int64_t byteCount(const json::object& fields, const char* key) {
    const std::int64_t number = fields.at(key).to_number<std::int64_t>();
    if (number < 0) throw std::invalid_argument(std::string(key) + " is negative");
    return number;
}

}  // namespace

json::object ServiceLedger::registerResource(const Caller& caller, const Fields& registration) {
    const std::string infoHash = text(registration, "info_hash");
    if (infoHash.size() != 40) throw std::invalid_argument("info_hash is no info-hash");
    Fields holding = registration;
    holding["ip"] = caller.ip;
    byteCount(registration, "total_bytes");
    account(caller.user, infoHash).status = text(registration, "status");
    holdings_[{infoHash, caller.user, caller.device}] = std::move(holding);
    return {{"ok", true}};
}

json::object ServiceLedger::release(const Caller& caller, const std::string& infoHash) {
    std::erase_if(holdings_, [&](const auto& holding) {
        const auto& [hash, user, device] = holding.first;
        return user == caller.user && device == caller.device && (infoHash.empty() || infoHash == hash);
    });
    return {{"ok", true}};
}

json::object ServiceLedger::complete(const Caller& caller, const std::string& infoHash) {
    account(caller.user, infoHash).status = "seeding";
    const auto holding = holdings_.find({infoHash, caller.user, caller.device});
    if (holding != holdings_.end()) holding->second["status"] = "seeding";
    return {{"ok", true}};
}

json::object ServiceLedger::countBatch(const Caller& caller, const Fields& batch) {
    for (const json::value& item : batch.at("items").as_array()) count(caller.user, item.as_object());
    return {{"ok", true},
            {"items", itemsOf(caller.user)},
            {"rates", {{"download_cost_rate", downloadCostRate}, {"uploader_share_ratio", uploaderShareRatio}}}};
}

void ServiceLedger::count(const std::string& user, const Fields& item) {
    const std::string infoHash = text(item, "info_hash");
    // Copies: what is wrong, or was counted before, changes nothing.
    Account total = account(user, infoHash);
    std::map<EdgeKey, Edge> edges = edges_;
    total.status = text(item, "status");
    total.uploaded += byteCount(item, "upload_delta");
    total.downloaded += byteCount(item, "download_delta");
    for (const json::value& value : item.at("peers").as_array()) {
        const Fields& report = value.as_object();
        const std::string peer = text(report, "peer_user");
        const std::int64_t verified = byteCount(report, "verified_bytes");
        const std::int64_t sent = byteCount(report, "sent_bytes");
        total.fromPlatform += verified;
        if (verified > 0 && !isFree(peer, infoHash)) edges[{infoHash, user, peer}].downloaderBytes += verified;
        if (sent > 0 && !isFree(user, infoHash)) edges[{infoHash, peer, user}].uploaderBytes += sent;
    }
    if (!events_.insert(user + "/" + text(item, "event_id")).second) {
        ++repeatedEvents_;
        return;
    }
    account(user, infoHash) = total;
    edges_ = std::move(edges);
    for (auto& [key, edge] : edges_)
        if (edge.id == 0) edge.id = ++lastId_;
}

bool ServiceLedger::isFree(const std::string& user, const std::string& infoHash) const {
    return std::any_of(holdings_.begin(), holdings_.end(), [&](const auto& holding) {
        const auto& [hash, holder, device] = holding.first;
        return hash == infoHash && holder == user && text(holding.second, "upload_mode") == "free";
    });
}

json::array ServiceLedger::itemsOf(const std::string& user) const {
    json::array items;
    for (const auto& [key, account] : accounts_)
        if (key.first == user)
            items.push_back(
                {{"info_hash", key.second},
                 {"status", account.status},
                 {"uploaded", account.uploaded},
                 {"downloaded", account.downloaded},
                 {"earned", account.earned},
                 {"spent", account.spent},
                 {"dl_bytes_platform", account.fromPlatform - account.fromRelay()},
                 {"dl_bytes_public_bt", std::max<std::int64_t>(0, account.downloaded - account.fromPlatform)},
                 {"dl_bytes_relay", account.fromRelay()}});
    return items;
}

double ServiceLedger::netOf(const std::string& user) const { return pending(user, {}).at("net_pending").as_double(); }

json::object ServiceLedger::balance(const std::string& user) const {
    const double confirmed = wallets.at(user);
    const double net = netOf(user);
    return {{"ok", true},
            {"items", itemsOf(user)},
            {"wallet_balance", confirmed + net},
            {"wallet_balance_confirmed", confirmed},
            {"pending_net", net}};
}

json::object ServiceLedger::peers(const Caller& caller, const std::string& infoHash, const std::string& mode) const {
    json::array list;
    for (const auto& [key, holding] : holdings_) {
        const auto& [hash, user, device] = key;
        const bool isSelf = user == caller.user;
        const bool isWanted = mode != "free" || text(holding, "upload_mode") == "free";
        if (hash != infoHash || (isSelf && device == caller.device) || !isWanted ||
            text(holding, "status") == "offline")
            continue;
        const json::array& local = holding.at("local_ip").as_array();
        Fields peer{{"user_id", user},
                    {"ip", holding.at("ip")},
                    {"port", holding.at("port")},
                    {"local_ip", local.empty() ? json::value("") : local.front()},
                    {"upload_mode", holding.at("upload_mode")},
                    {"speed_limit", 0},
                    {"self_lan", isSelf},
                    {"prefer_local", isSelf}};
        const auto overlay = peerOverlays.find(user);
        if (overlay != peerOverlays.end())
            for (const auto& field : overlay->second) peer[field.key()] = field.value();
        list.push_back(std::move(peer));
    }
    return {{"peers", std::move(list)}};
}

void ServiceLedger::book(const std::string& owner, Fields transaction, double amount, bool isIn) {
    if (!wallets.contains(owner)) return;
    wallets.at(owner) += isIn ? amount : -amount;
    transaction["id"] = ++lastId_;
    transaction["amount"] = amount;
    transaction["created_at"] = today();
    transaction["direction"] = isIn ? "in" : "out";
    transactions_[owner].push_back(std::move(transaction));
}

json::object ServiceLedger::settle(const std::string& user) {
    const std::size_t settled = std::erase_if(edges_, [&](const auto& entry) {
        const auto& [infoHash, downloader, uploader] = entry.first;
        const Edge& edge = entry.second;
        if (downloader != user && uploader != user) return false;
        const Fields transaction{{"tx_type", "settle"},
                                 {"from_user", downloader},
                                 {"to_user", uploader},
                                 {"bytes_transferred", edge.downloaderBytes},
                                 {"info_hash", infoHash}};
        account(downloader, infoHash).spent += edge.spent();
        account(uploader, infoHash).earned += edge.earned();
        book(downloader, transaction, edge.spent(), false);
        book(uploader, transaction, edge.earned(), true);
        return true;
    });
    return {{"ok", true}, {"settled_edges", settled}, {"wallet_balance", wallets.at(user)}};
}

json::object ServiceLedger::transfer(const std::string& from, const Fields& order) {
    const std::string to = text(order, "to_user");
    const double amount = order.at("amount").to_number<double>();
    if (wallets.count(to) == 0) throw std::invalid_argument("no such user");
    if (amount <= 0 || amount > wallets.at(from)) throw std::invalid_argument("insufficient balance");
    Fields transaction{{"tx_type", "transfer"},
                       {"from_user", from},
                       {"to_user", to},
                       {"info_hash", nullptr},
                       {"bytes_transferred", 0}};
    if (order.contains("note")) transaction["note"] = order.at("note");
    book(from, transaction, amount, false);
    book(to, transaction, amount, true);
    return {{"wallet_balance", wallets.at(from)}};
}

json::object ServiceLedger::transactions(const std::string& user, const Query& query) const {
    const auto mine = transactions_.find(user);
    json::array matching;  // the newest first
    for (const Fields& transaction : mine == transactions_.end() ? std::vector<Fields>() : mine->second) {
        const auto isAsked = [&](const char* key) {
            const auto filter = query.find(key);
            return filter == query.end() || transaction.at(key) == json::value(filter->second);
        };
        if (isAsked("tx_type") && isAsked("info_hash")) matching.insert(matching.begin(), transaction);
    }
    const std::size_t page = std::stoul(query.at("page"));
    const std::size_t size = std::stoul(query.at("size"));
    json::array items;
    for (std::size_t i = (page - 1) * size; i < std::min(page * size, matching.size()); ++i)
        items.push_back(matching[i]);
    return {{"ok", true}, {"items", items}, {"page", page}, {"size", size}, {"total", matching.size()}};
}

json::object ServiceLedger::pending(const std::string& user, const Query& query) const {
    const auto filter = query.find("info_hash");
    json::array owed;
    json::array owing;
    double spent = 0;
    double earned = 0;
    for (const auto& [key, edge] : edges_) {
        const auto& [infoHash, downloader, uploader] = key;
        const bool isOut = downloader == user;
        if ((!isOut && uploader != user) || (filter != query.end() && filter->second != infoHash)) continue;
        const double toPay = isOut ? edge.spent() : 0;
        const double toGet = isOut ? 0 : edge.earned();
        spent += toPay;
        earned += toGet;
        (isOut ? owing : owed)
            .push_back({{"id", edge.id},
                        {"tx_type", "settle"},
                        {"info_hash", infoHash},
                        {"peer", isOut ? uploader : downloader},
                        {"direction", isOut ? "out" : "in"},
                        {"downloader_bytes", edge.downloaderBytes},
                        {"uploader_bytes", edge.uploaderBytes},
                        {"pending_spent", toPay},
                        {"pending_earned", toGet},
                        {"updated_at", today()}});
    }
    return {{"ok", true},           {"out", owing},           {"in", owed},
            {"total_spent", spent}, {"total_earned", earned}, {"net_pending", earned - spent}};
}

json::object ServiceLedger::describe() const {
    json::array holdings;
    for (const auto& [key, holding] : holdings_) {
        Fields shown = holding;
        shown["user"] = std::get<1>(key);
        shown["device"] = std::get<2>(key);
        holdings.push_back(std::move(shown));
    }
    json::array users;
    for (const auto& [user, credit] : wallets)
        users.push_back({{"user", user}, {"wallet", credit}, {"pending", netOf(user)}, {"torrents", itemsOf(user)}});
    return {{"users", users},
            {"holdings", holdings},
            {"counted_events", events_.size()},
            {"repeated_events", repeatedEvents_}};
}

}  // namespace skein
