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

/// Ends the program at once with exit status 1 and one line on stderr, where the system gives too little to go on.
/// Nothing is cleaned up: what is on disk is as after a kill. Allocates nothing; of several threads the first is heard.
[[noreturn]] void endProgram(const char* why) noexcept;

/// From now on what lacks memory or a thread where nobody can be told ends the program by `endProgram`. Called at
/// start.
void endProgramOnShortage() noexcept;

/// The one way in which a value that a remote side sent may stop the program: runs the installed handler, which by
/// default stops it. A handler that returns has the program stopped all the same. Thread: any.
[[noreturn]] void fatalFault(const std::string& message);

/// Replaces the handler and returns the one before. Called at start, before other threads run.
using FatalFaultHandler = std::function<void(const std::string& message)>;
FatalFaultHandler setFatalFaultHandler(FatalFaultHandler handler);

/// A handler that throws FatalFault, so that what one peer sends costs that peer's connection alone.
[[noreturn]] void throwOnFatalFault(const std::string& message);

}  // namespace skein
