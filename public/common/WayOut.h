#pragma once

#include "public/common/LocalBinding.h"
#include "public/common/NameResolver.h"

#include <utility>

namespace skein {

/// How connections leave this machine: who finds the addresses of a name, and which local addresses are used.
///
/// The resolver, which outlives whatever has this, stands alone for any local address.
struct WayOut {
    WayOut(NameResolver& finder, LocalBinding from = {}) : resolver(finder), binding(std::move(from)) {}

    NameResolver& resolver;
    LocalBinding binding;
};

}  // namespace skein
