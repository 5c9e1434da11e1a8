#pragma once

#include "app/Command.h"
#include "app/client/APIPort.h"

namespace skein {

/// A command about the account at the resource service: through the daemon when one runs, and alone otherwise.
class AccountCommand : public Command {
public:
    using Command::Command;

    int run(const GlobalOptions& global) final;

protected:
    /// Does it and returns the exit status. Throws CommandFailure.
    virtual int talk(APIPort& port) = 0;
};

}  // namespace skein
