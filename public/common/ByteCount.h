#pragma once

#include <cstdint>
#include <string>

namespace skein {

/// "1.4 GiB"; below 1024 "12 B".
std::string formatByteCount(std::int64_t bytes);

}  // namespace skein
