#include "app/client/ClientCommand.h"

#include <CLI/CLI.hpp>

#include <chrono>

namespace skein {

namespace {

/// A clean stop takes a few seconds at most, while the trackers are told.
constexpr std::chrono::seconds patience{15};

class StopCommand final : public ClientCommand {
public:
    StopCommand() : ClientCommand({"stop", "Stop the daemon", "skein stop"}) {}

    void declare(CLI::App&) override {}

protected:
    int talk(DaemonClient& daemon) override {
        daemon.post("api/v1/stop");
        if (!daemon.waitForEnd(patience)) throw CommandFailure("stop", "the daemon has not ended yet");
        return exitStatus::done;
    }
};

}  // namespace

std::unique_ptr<Command> makeStopCommand() { return std::make_unique<StopCommand>(); }

}  // namespace skein
