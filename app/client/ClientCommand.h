#pragma once

#include "app/Command.h"
#include "app/client/DaemonClient.h"

#include <boost/json/fwd.hpp>

#include <functional>
#include <string>
#include <vector>

namespace skein {

/// A command that asks the running daemon. Without one it says so and fails.
class ClientCommand : public Command {
public:
    using Command::Command;

    int run(const GlobalOptions& global) final;

protected:
    /// Does it and returns the exit status. Throws CommandFailure.
    virtual int talk(DaemonClient& daemon) = 0;

    /// Calls `work` for each of `names`. One that throws CommandFailure is told (what the daemon refuses, under that
    /// name) and does not keep the rest from being done. Returns the exit status.
    static int forEach(const std::vector<std::string>& names, const std::function<void(const std::string&)>& work);
    /// Throws CommandFailure when `task`, an answer of the daemon, says what went wrong with it.
    static void failIfError(const std::string& name, const boost::json::value& task);
};

}  // namespace skein
