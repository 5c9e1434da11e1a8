#pragma once

#include "public/common/HTTPClient.h"
#include "service/SkeinServiceClient.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/SkeinTestService.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace skein {

/// The client against a real service, with alice signed in.
class ServiceTest : public testing::Test {
protected:
    ServiceTest() {
        settings.set(ServiceAccount::serverURLKey, service.url() + "//");
        signIn("alice", "open sesame");
    }
    ~ServiceTest() override {
        http.stop();
        simulation.finish(service.stop());
    }

    void signIn(std::string user, std::string credential) {
        ASSERT_TRUE(run(account.signIn(std::move(user), std::move(credential))));
    }
    template <class T>
    T run(asio::awaitable<T> call) {
        return simulation.finish(std::move(call));
    }
    /// The lines since the last look, without what each begins with.
    std::vector<std::string> lines() {
        const std::string prefix = "[2026-01-01T00:00:00Z][SkeinSvc] ";
        std::vector<std::string> fresh;
        const std::vector<std::string> all = log.lines();
        for (; seenLines < all.size(); ++seenLines) {
            EXPECT_TRUE(all[seenLines].starts_with(prefix)) << all[seenLines];
            fresh.push_back(all[seenLines].substr(std::min(prefix.size(), all[seenLines].size())));
        }
        return fresh;
    }
    /// "POST /path body" of the last request.
    std::string lastSent() const {
        const SeenHTTPRequest& last = service.requests().back();
        return last.method + " " + last.target + " " + std::string(asText(last.body));
    }
    HeartbeatPayload report(std::string event, std::int64_t uploaded, std::int64_t downloaded,
                            std::vector<PeerReport> peers = {}) {
        HeartbeatPayload item{*settings.text(ServiceAccount::userIDKey), std::move(event), hash};
        item.status = ResourceStatus::leeching;
        item.uploadDelta = uploaded;
        item.downloadDelta = downloaded;
        item.peers = std::move(peers);
        return item;
    }
    std::string failureOf(asio::awaitable<WalletActionResult> action) {
        return std::get<WalletError>(run(std::move(action))).description;
    }

    /// One call of each kind: what the log names it, how it tells of a failure, and whether the call succeeds.
    struct Call {
        std::string name;
        std::string failed;
        std::function<bool()> succeeds;
    };
    std::vector<Call> calls() {
        const ResourceRegistration held{hash, ResourceStatus::seeding};
        const std::string of = " hash=" + hash;
        return {
            {"register[seeding]" + of, "❌ register[seeding]" + of,
             [=, this] { return run(client.registerResource(held)); }},
            {"unregister" + of, "❌ unregister" + of, [this] { return run(client.unregister(hash)); }},
            {"complete" + of, "❌ complete" + of, [this] { return run(client.markComplete(hash)); }},
            {"delete" + of, "❌ delete" + of, [this] { return run(client.deleteResource(hash)); }},
            {"release resources", "❌ release resources", [this] { return run(client.releaseResourcesForLogout()); }},
            {"heartbeat/batch", "❌ heartbeat/batch", [this] { return run(client.batchHeartbeat({})).has_value(); }},
            {"balance", "❌ balance error:", [this] { return run(client.fetchBalance()).has_value(); }},
            {"getPeers", "getPeers", [this] { return !run(client.getPeers(hash, "all")).empty(); }},
            {"settle", "settle", [this] { return run(client.walletSettle()).has_value(); }},
            {"transactions", "transactions",
             [this] { return run(client.walletTransactions(1, 20, {}, {})).has_value(); }},
            {"pending", "pending", [this] { return run(client.walletPending({})).has_value(); }},
            {"transfer", "transfer ❌", [this] { return run(client.walletTransfer("bob", 1, {})).index() == 0; }},
        };
    }

    const std::string hash = std::string(40, 'a');
    Simulation simulation;
    TemporaryFolder folder;
    RecordingLogger log;
    SettingsStore settings{folder.path() / "settings.db", log};
    SecureRandom random;
    HTTPClient http;
    SkeinTestService service{simulation.executor(), {.users = {{"alice", "open sesame"}, {"bob", "swordfish"}}}};
    ServiceAccount account{ActorSettings(settings, simulation.executor()), random};
    SkeinServiceClient client{http, account, simulation, log};
    std::size_t seenLines = 0;
};

}  // namespace skein
