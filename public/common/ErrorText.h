#pragma once

#include <exception>
#include <string>

namespace skein {

/// What a user or the log is told of `error`: a system's error by its message alone, without the place in the source
/// that Boost's `what()` adds, and a lack of memory in words.
std::string textOf(const std::exception& error);

}  // namespace skein
