#pragma once

#include "Core/engine/ResourceBalance.h"
#include "Core/engine/ResourceRecords.h"

#include <boost/asio/awaitable.hpp>

#include <optional>
#include <string>
#include <vector>

namespace skein {

namespace asio = boost::asio;

/// What the download manager asks of the resource service. Nothing of it throws but the end by cancellation; what fails
/// is tried again later. Thread: any.
class ResourceService {
public:
    ResourceService() = default;
    ResourceService(const ResourceService&) = delete;
    ResourceService& operator=(const ResourceService&) = delete;
    virtual ~ResourceService() = default;

    virtual asio::awaitable<ServiceAccess> access() = 0;
    virtual asio::awaitable<bool> registerResource(ResourceRegistration registration) = 0;
    /// The torrent is whole here now.
    virtual asio::awaitable<bool> markComplete(std::string infoHash) = 0;
    /// Has the service forget the torrent; false when it did not confirm.
    virtual asio::awaitable<bool> deleteResource(std::string infoHash) = 0;
    virtual asio::awaitable<bool> releaseResourcesForLogout() = 0;
    /// Nothing when the service did not answer: what was reported is not confirmed.
    virtual asio::awaitable<std::optional<HeartbeatBatchResult>> batchHeartbeat(
        std::vector<HeartbeatPayload> items) = 0;
    virtual asio::awaitable<std::optional<UserBalanceResponse>> fetchBalance() = 0;
};

/// For a program that uses no service: nobody is signed in.
class NoResourceService final : public ResourceService {
public:
    asio::awaitable<ServiceAccess> access() override;
    asio::awaitable<bool> registerResource(ResourceRegistration registration) override;
    asio::awaitable<bool> markComplete(std::string infoHash) override;
    asio::awaitable<bool> deleteResource(std::string infoHash) override;
    asio::awaitable<bool> releaseResourcesForLogout() override;
    asio::awaitable<std::optional<HeartbeatBatchResult>> batchHeartbeat(std::vector<HeartbeatPayload> items) override;
    asio::awaitable<std::optional<UserBalanceResponse>> fetchBalance() override;
};

}  // namespace skein
