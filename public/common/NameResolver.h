#pragma once

#include "public/common/IPAddress.h"
#include "public/common/LocalBinding.h"
#include "public/common/NameLookups.h"

#include <boost/asio/awaitable.hpp>

#include <memory>
#include <string>
#include <vector>

namespace skein {

namespace asio = boost::asio;

/// Whatever finds the addresses of a host: SystemNameResolver in the program, a test's own. Thread: any.
class NameResolver {
public:
    NameResolver() = default;
    NameResolver(const NameResolver&) = delete;
    NameResolver& operator=(const NameResolver&) = delete;
    virtual ~NameResolver() = default;

    /// At least one address, best first; a literal is its own. Throws boost::system::system_error: host_not_found,
    /// NetworkRefusal where none can be reached, or operation_aborted when the caller is cancelled or the resolver
    /// stops.
    virtual asio::awaitable<std::vector<IPAddress>> resolve(std::string host) = 0;
};

/// Asks the system, through the look-ups that the whole program shares.
///
/// Owner: the program; it goes before the pools on which its callers run, and answers those who still wait.
class SystemNameResolver final : public NameResolver {
public:
    /// Only addresses that can be reached from `binding` are found; nobody is asked while nothing can leave.
    explicit SystemNameResolver(LocalBinding binding = {},
                                std::shared_ptr<NameLookups> lookups = NameLookups::shared());
    ~SystemNameResolver() override;

    asio::awaitable<std::vector<IPAddress>> resolve(std::string host) override;

private:
    class Waiting;

    const LocalBinding binding_;
    const std::shared_ptr<NameLookups> lookups_;
    const std::shared_ptr<Waiting> waiting_;
};

}  // namespace skein
