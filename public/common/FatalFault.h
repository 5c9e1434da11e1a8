#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace skein {

/// What `fatalFault` throws where the program installed `throwOnFatalFault`.
class FatalFault : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Writes `message` to stderr and ends the program (abort). For errors of our own code.
[[noreturn]] void stopProgram(const std::string& message) noexcept;

/// The one way in which a value that a remote side sent may stop the program: runs the installed handler, which by
/// default stops it. A handler that returns has the program stopped all the same. Thread: any.
[[noreturn]] void fatalFault(const std::string& message);

/// Replaces the handler and returns the one before. Called at start, before other threads run.
using FatalFaultHandler = std::function<void(const std::string& message)>;
FatalFaultHandler setFatalFaultHandler(FatalFaultHandler handler);

/// A handler that throws FatalFault, so that what one peer sends costs that peer's connection alone.
[[noreturn]] void throwOnFatalFault(const std::string& message);

}  // namespace skein
