#pragma once

#include <functional>
#include <stdexcept>
#include <thread>

namespace skein {

/// Thrown where the system gives no further thread. `what()` says so, and why.
class ThreadShortage : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Starts a thread that runs `work`. The one place where threads of ours begin. Throws ThreadShortage. Thread: any.
std::thread startThread(std::function<void()> work);

}  // namespace skein
