#include "Core/discovery/DHTEndpoint.h"

namespace skein {

bool DHTEndpoint::isUsable() const noexcept { return port != 0 && (isLocal() || host.scope() == AddressScope::global); }

bool DHTEndpoint::isLocal() const noexcept {
    const AddressScope scope = host.scope();
    return scope == AddressScope::loopback || scope == AddressScope::privateUse;
}

bool DHTEndpoint::mayName(const DHTEndpoint& other) const noexcept {
    return other.isUsable() && (isLocal() || !other.isLocal());
}

}  // namespace skein
