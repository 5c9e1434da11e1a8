#pragma once

#include "Core/engine/ResourceRecords.h"

#include <boost/asio/awaitable.hpp>

#include <string>
#include <vector>

namespace skein {

namespace asio = boost::asio;

/// What a session asks of the resource service. Nothing of it throws but the end by cancellation: a call that failed
/// says so by its result. Thread: any.
class ResourceGateway {
public:
    ResourceGateway() = default;
    ResourceGateway(const ResourceGateway&) = delete;
    ResourceGateway& operator=(const ResourceGateway&) = delete;
    virtual ~ResourceGateway() = default;

    /// Read anew for every call, because the user may sign in and out while sessions run.
    virtual asio::awaitable<ServiceAccess> access() = 0;
    /// True once the service has confirmed it.
    virtual asio::awaitable<bool> registerResource(ResourceRegistration registration) = 0;
    /// Empty also when the service did not answer.
    virtual asio::awaitable<std::vector<SkeinPeerInfo>> getPeers(std::string infoHash, std::string mode) = 0;
};

}  // namespace skein
