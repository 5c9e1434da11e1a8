#pragma once

#include <string>

namespace skein {

/// Tells one run of the machine from the next; empty where the system does not say. Blocks: disk pool only.
std::string bootIdentity();

}  // namespace skein
