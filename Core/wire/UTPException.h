#pragma once

#include <stdexcept>

namespace skein {

/// What a uTP peer sent was no uTP, or not what opens a connection. `what()` says which.
class UTPException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace skein
