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
    /// The last line of the log, without what each begins with.
    std::string lastLine() const {
        const std::string line = log.lines().back();
        const std::string prefix = "[2026-01-01T00:00:00Z][SkeinSvc] ";
        EXPECT_THAT(line, testing::StartsWith(prefix));
        return line.substr(std::min(prefix.size(), line.size()));
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

    /// One call of each kind: what the log names it, and whether the call succeeds.
    std::vector<std::pair<std::string, std::function<bool()>>> calls() {
        const ResourceRegistration held{hash, ResourceStatus::seeding};
        return {
            {"register[seeding] hash=" + hash, [=, this] { return run(client.registerResource(held)); }},
            {"unregister hash=" + hash, [this] { return run(client.unregister(hash)); }},
            {"complete hash=" + hash, [this] { return run(client.markComplete(hash)); }},
            {"delete hash=" + hash, [this] { return run(client.deleteResource(hash)); }},
            {"release resources", [this] { return run(client.releaseResourcesForLogout()); }},
            {"heartbeat/batch", [this] { return run(client.batchHeartbeat({})).has_value(); }},
            {"balance", [this] { return run(client.fetchBalance()).has_value(); }},
            {"getPeers", [this] { return !run(client.getPeers(hash, "all")).empty(); }},
            {"settle", [this] { return run(client.walletSettle()).has_value(); }},
            {"transactions", [this] { return run(client.walletTransactions(1, 20, {}, {})).has_value(); }},
            {"pending", [this] { return run(client.walletPending({})).has_value(); }},
            {"transfer", [this] { return run(client.walletTransfer("bob", 1, {})).index() == 0; }},
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
};

}  // namespace skein
