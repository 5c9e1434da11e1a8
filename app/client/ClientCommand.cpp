#include "app/client/ClientCommand.h"

#include "app/client/DaemonRefusal.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

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

int ClientCommand::forEach(const std::vector<std::string>& names, const std::function<void(const std::string&)>& work) {
    int status = exitStatus::done;
    for (const std::string& name : names) {
        try {
            work(name);
        } catch (const DaemonRefusal& refusal) {
            reportFailure(CommandFailure(name, refusal.why).what());
            status = exitStatus::failed;
        } catch (const CommandFailure& failure) {
            reportFailure(failure.what());
            status = exitStatus::failed;
        }
    }
    return status;
}

void ClientCommand::failIfError(const std::string& name, const boost::json::value& task) {
    const auto* const message = task.as_object().if_contains("errorMessage");
    if (message != nullptr && message->is_string()) throw CommandFailure(name, std::string(message->as_string()));
}

}  // namespace skein
