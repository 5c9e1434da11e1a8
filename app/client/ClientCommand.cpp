#include "app/client/ClientCommand.h"

namespace skein {

int ClientCommand::run(const GlobalOptions& global) {
    try {
        DaemonClient daemon(global.home());
        return talk(daemon);
    } catch (const NoDaemon& none) {
        reportFailure(none.what());
        return exitStatus::failed;
    }
}

}  // namespace skein
