#pragma once

#include "public/common/IPAddress.h"

#include <boost/system/error_code.hpp>

#include <optional>
#include <string>
#include <vector>

namespace skein {

/// From which of this machine's addresses traffic may leave: from any, from one, or from those that a network
/// interface has at the moment.
///
/// A value. Nothing is remembered of an interface: it may come, go and change its addresses at any time. Waits for
/// nothing. Thread: any.
class LocalBinding {
public:
    LocalBinding() = default;
    /// `name`: a literal address, or the name of an interface, which may not be there yet; empty for any address.
    explicit LocalBinding(std::string name);

    bool isRestricted() const noexcept { return !name_.empty(); }
    bool isInterface() const noexcept { return isRestricted() && !literal_; }
    const std::string& name() const noexcept { return name_; }

    /// What to bind a socket of that family to: the unspecified address where any will do; nothing where no traffic of
    /// that family may leave. An interface has link-local IPv6 addresses too, which reach nobody outside: they are
    /// left out.
    std::optional<IPAddress> sourceFor(bool isIPv4) const;
    /// The same of both families, IPv4 first.
    std::vector<IPAddress> addresses() const;
    bool canReach(const IPAddress& remote) const { return sourceFor(remote.isIPv4()).has_value(); }
    /// Nothing can leave: the interface is not there or has no address.
    bool isGone() const { return isInterface() && addresses().empty(); }

    /// Binds a socket that is to be connected, and was not bound before. Does nothing where any address will do.
    boost::system::error_code bind(int socket, bool isIPv4) const;
    /// Has a socket use the interface alone, whatever the routes say, as far as the system lets us.
    void tieToInterface(int socket) const noexcept;

private:
    boost::system::error_code refusal() const;

    std::string name_;
    std::optional<IPAddress> literal_;
};

}  // namespace skein
