#pragma once

#include "public/common/IPAddress.h"
#include "public/common/LocalBinding.h"

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

/// Asks the system, on threads of its own: at most `maxThreads` look-ups run at once, further ones wait.
///
/// A look-up cannot be interrupted and may take half a minute. So a caller that is cancelled leaves at once, and the
/// resolver goes without waiting: a thread that still asks ends by itself, and holds nothing but its own state.
/// Owner: the program; it goes before the pools on which its callers run.
class SystemNameResolver final : public NameResolver {
public:
    static constexpr int maxThreads = 8;

    /// Only addresses that can be reached from `binding` are found; nobody is asked while nothing can leave.
    explicit SystemNameResolver(LocalBinding binding = {});
    ~SystemNameResolver() override;

    asio::awaitable<std::vector<IPAddress>> resolve(std::string host) override;

private:
    class Desk;
    const LocalBinding binding_;
    std::shared_ptr<Desk> desk_;
};

}  // namespace skein
