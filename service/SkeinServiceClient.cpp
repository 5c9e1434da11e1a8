#include "service/SkeinServiceClient.h"

#include "public/common/PlainJSON.h"
#include "public/common/Printable.h"
#include "service/ServiceBody.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace {

namespace json = boost::json;

std::string joined(const std::vector<std::string>& texts) {
    std::string list;
    for (const std::string& text : texts) list += (list.empty() ? "" : ",") + text;
    return list;
}

}  // namespace

SkeinServiceClient::SkeinServiceClient(HTTPFetcher& http, ServiceAccount account, Clock& clock, FileLogger& log)
    : caller_(http, std::move(account), clock, log) {}

asio::awaitable<ServiceAccess> SkeinServiceClient::access() { return caller_.access(); }

asio::awaitable<bool> SkeinServiceClient::registerResource(ResourceRegistration registration) {
    const std::string status(textOf(registration.status));
    const std::string tag = "register[" + status + "] hash=" + registration.infoHash;
    auto request = co_await caller_.makePost("/api/resource/register", plainJSON(JSONRecord::write(registration)), tag);
    if (!request) co_return false;
    info("→ register  user=", request->access.userID, " hash=", registration.infoHash, " status=", status,
         " mode=", textOf(registration.uploadMode), " localIP=[", joined(registration.localIP),
         "] port=", registration.port, " total=", registration.totalBytes, "B");
    co_return co_await caller_.fire(std::move(*request), tag);
}

asio::awaitable<bool> SkeinServiceClient::unregister(std::string infoHash) {
    return fireForTorrent("/api/resource/unregister", "unregister", std::move(infoHash));
}

asio::awaitable<bool> SkeinServiceClient::markComplete(std::string infoHash) {
    return fireForTorrent("/api/resource/complete", "complete", std::move(infoHash));
}

asio::awaitable<bool> SkeinServiceClient::deleteResource(std::string infoHash) {
    return fireForTorrent("/api/resource/delete", "delete", std::move(infoHash));
}

asio::awaitable<bool> SkeinServiceClient::fireForTorrent(std::string path, std::string name, std::string infoHash) {
    const std::string tag = name + " hash=" + infoHash;
    const json::object body{{"info_hash", infoHash}};
    auto request = co_await caller_.makePost(std::move(path), plainJSON(body), tag);
    if (!request) co_return false;
    info("→ ", name, "  user=", request->access.userID, " hash=", infoHash);
    co_return co_await caller_.fire(std::move(*request), tag);
}

asio::awaitable<bool> SkeinServiceClient::releaseResourcesForLogout() {
    const std::string tag = "release resources";
    auto request = co_await caller_.makePost("/api/resource/release", "{}", tag);
    if (!request) co_return false;
    info("→ release resources  user=", request->access.userID);
    co_return co_await caller_.fire(std::move(*request), tag);
}

asio::awaitable<std::optional<HeartbeatBatchResult>> SkeinServiceClient::batchHeartbeat(
    std::vector<HeartbeatPayload> items) {
    const json::object body{{"items", JSONRecord::write(items)}};
    auto request = co_await caller_.makePost("/api/resource/heartbeat/batch", plainJSON(body), "heartbeat/batch");
    if (!request) co_return std::nullopt;
    const bool isTheirs = std::all_of(items.begin(), items.end(), [&](const HeartbeatPayload& item) {
        return item.userID == request->access.userID;
    });
    if (!isTheirs) co_return std::nullopt;  // the user has changed since they were drawn up
    info("→ heartbeat/batch  user=", request->access.userID, " count=", items.size());
    noteItems(items);
    ServiceAnswer answer = co_await caller_.send(std::move(*request));
    auto result = recordIn<HeartbeatBatchResult>(answer);
    if (result) {
        info("✓ heartbeat/batch(", items.size(), ") — ", result->items.size(), " balance items");
    } else {
        warning("❌ heartbeat/batch ", answer.whyNot());
    }
    co_return result;
}

void SkeinServiceClient::noteItems(const std::vector<HeartbeatPayload>& items) const {
    for (const HeartbeatPayload& item : items) {
        info("   hash=", item.infoHash, " status=", textOf(item.status), " up=", item.uploadDelta,
             "B dl=", item.downloadDelta, "B peers=", item.peers.size());
        for (const PeerReport& peer : item.peers)
            caller_.note(LogLevel::debug, "     peer=", printable(peer.peerUserId), " verified=", peer.verifiedBytes,
                         "B sent=", peer.sentBytes, "B");
    }
}

asio::awaitable<std::optional<UserBalanceResponse>> SkeinServiceClient::fetchBalance() {
    auto request = co_await caller_.makeRequest("/api/resource/balance", "GET", "balance");
    if (!request) co_return std::nullopt;
    info("→ balance  user=", request->access.userID);
    ServiceAnswer answer = co_await caller_.send(std::move(*request));
    auto balance = recordIn<UserBalanceResponse>(answer);
    if (balance) {
        info("✓ balance  items=", balance->items.size(), " wallet=", creditText(balance->walletBalance));
    } else {
        warning("❌ balance error: ", answer.reason());
    }
    co_return balance;
}

asio::awaitable<std::vector<SkeinPeerInfo>> SkeinServiceClient::getPeers(std::string infoHash, std::string mode) {
    ServiceCaller::Query query{{"info_hash", std::move(infoHash)}, {"mode", std::move(mode)}};
    auto request = co_await caller_.makeRequest("/api/resource/peers", "GET", "getPeers", std::move(query));
    if (!request) co_return std::vector<SkeinPeerInfo>();
    ServiceAnswer answer = co_await caller_.send(std::move(*request));
    auto list = recordIn<PeerListAnswer>(answer);
    if (!list) {
        warning("getPeers ", answer.whyNot());
        co_return std::vector<SkeinPeerInfo>();
    }
    co_return std::move(list->peers);
}

}  // namespace skein
