#include "app/client/AccountCommand.h"

#include "app/client/DaemonClient.h"
#include "app/client/LocalDesk.h"

#include <memory>

namespace skein {

namespace {

/// Decided once: what was sent to a daemon that then vanished is not done a second time here.
std::unique_ptr<APIPort> portOf(const std::filesystem::path& home) {
    try {
        return std::make_unique<DaemonClient>(home);
    } catch (const NoDaemon&) {
        return std::make_unique<LocalDesk>(home);
    }
}

}  // namespace

int AccountCommand::run(const GlobalOptions& global) {
    const std::unique_ptr<APIPort> port = portOf(global.home());
    try {
        return talk(*port);
    } catch (const NoDaemon&) {
        throw CommandFailure("the daemon", "it ended, or does not answer");
    }
}

}  // namespace skein
