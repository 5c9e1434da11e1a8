#include "app/client/ClientCommand.h"
#include "app/client/MessageLines.h"
#include "app/client/TableLog.h"
#include "app/client/TerminalScreen.h"
#include "app/client/WatchRun.h"
#include "app/client/WatchScreen.h"

#include <CLI/CLI.hpp>

#include <iostream>
#include <optional>

namespace skein {

namespace {

class WatchCommand final : public ClientCommand {
public:
    WatchCommand()
        : ClientCommand(
              {"watch", "Show all tasks of the daemon as they change, and steer them by keys", "skein watch"}) {}

    void declare(CLI::App& options) override {
        options.add_flag("--json", isJSON_, "What happens, one JSON object a line");
    }

protected:
    int talk(DaemonClient& daemon) override {
        const Interrupt interrupt(daemon.pools().io(), TerminalScreen::giveBack);
        std::optional<TerminalScreen> screen;
        if (!isJSON_ && TerminalScreen::isTerminal()) screen.emplace();
        WatchRun run(daemon, interrupt,
                     [&](const Strand& strand, Clock& clock, WatchOutput::End end) -> std::unique_ptr<WatchOutput> {
                         const auto disk = daemon.pools().disk();
                         if (isJSON_) return std::make_unique<MessageLines>(disk, std::cout);
                         if (screen)
                             return std::make_unique<WatchScreen>(strand, daemon, clock, *screen, std::move(end));
                         return std::make_unique<TableLog>(strand, disk, clock, std::cout, std::move(end));
                     });
        run.run();
        return interrupt.exitStatus();
    }

private:
    bool isJSON_ = false;
};

}  // namespace

std::unique_ptr<Command> makeWatchCommand() { return std::make_unique<WatchCommand>(); }

}  // namespace skein
