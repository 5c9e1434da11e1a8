#pragma once

#include "downloads/ResourceService.h"
#include "service/SkeinServiceClient.h"

namespace skein {

/// The resource service as the download manager wants it, by the client that speaks to it.
///
/// Owner: the host of the manager. `client` outlives it. Thread: any.
class ServiceBridge final : public ResourceService {
public:
    explicit ServiceBridge(SkeinServiceClient& client) : client_(client) {}

    asio::awaitable<ServiceAccess> access() override { return client_.access(); }
    asio::awaitable<bool> registerResource(ResourceRegistration registration) override {
        return client_.registerResource(std::move(registration));
    }
    asio::awaitable<bool> markComplete(std::string infoHash) override {
        return client_.markComplete(std::move(infoHash));
    }
    asio::awaitable<bool> deleteResource(std::string infoHash) override {
        return client_.deleteResource(std::move(infoHash));
    }
    asio::awaitable<bool> releaseResourcesForLogout() override { return client_.releaseResourcesForLogout(); }
    asio::awaitable<std::optional<HeartbeatBatchResult>> batchHeartbeat(std::vector<HeartbeatPayload> items) override {
        return client_.batchHeartbeat(std::move(items));
    }
    asio::awaitable<std::optional<UserBalanceResponse>> fetchBalance() override { return client_.fetchBalance(); }

private:
    SkeinServiceClient& client_;
};

}  // namespace skein
