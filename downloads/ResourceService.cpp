#include "downloads/ResourceService.h"

namespace skein {

asio::awaitable<ServiceAccess> NoResourceService::access() { co_return ServiceAccess(); }

asio::awaitable<bool> NoResourceService::registerResource(ResourceRegistration) { co_return false; }

asio::awaitable<bool> NoResourceService::markComplete(std::string) { co_return false; }

asio::awaitable<bool> NoResourceService::deleteResource(std::string) { co_return true; }

asio::awaitable<bool> NoResourceService::releaseResourcesForLogout() { co_return false; }

asio::awaitable<std::optional<HeartbeatBatchResult>> NoResourceService::batchHeartbeat(std::vector<HeartbeatPayload>) {
    co_return std::nullopt;
}

asio::awaitable<std::optional<UserBalanceResponse>> NoResourceService::fetchBalance() { co_return std::nullopt; }

}  // namespace skein
