#pragma once

#include "app/Command.h"
#include "app/client/DaemonClient.h"

namespace skein {

/// A command that asks the running daemon. Without one it says so and fails.
class ClientCommand : public Command {
public:
    using Command::Command;

    int run(const GlobalOptions& global) final;

protected:
    /// Does it and returns the exit status. Throws CommandFailure.
    virtual int talk(DaemonClient& daemon) = 0;
};

}  // namespace skein
