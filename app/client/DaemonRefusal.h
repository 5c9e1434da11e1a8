#pragma once

#include "app/Command.h"

#include <string>

namespace skein {

/// Thrown when the daemon has answered, and what it answers is an error.
class DaemonRefusal : public CommandFailure {
public:
    explicit DaemonRefusal(const std::string& text) : CommandFailure("the daemon", text), why(text) {}
    const std::string why;  ///< as the daemon says it
};

}  // namespace skein
