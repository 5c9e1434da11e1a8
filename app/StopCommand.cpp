#include "app/client/ClientCommand.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>

#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

class StopCommand final : public ClientCommand {
public:
    StopCommand() : ClientCommand({"stop", "Stop the daemon", "skein stop"}) {}

    void declare(CLI::App&) override {}

protected:
    int talk(DaemonClient& daemon) override {
        daemon.post("api/v1/stop");
        return exitStatus::done;
    }
};

}  // namespace

std::unique_ptr<Command> makeStopCommand() { return std::make_unique<StopCommand>(); }

}  // namespace skein
