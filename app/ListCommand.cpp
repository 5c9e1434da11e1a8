#include "app/client/ClientCommand.h"
#include "app/client/TaskTable.h"
#include "public/common/PlainJSON.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

class ListCommand final : public ClientCommand {
public:
    ListCommand() : ClientCommand({"list", "Show all tasks of the daemon", "skein list --json"}) {}

    void declare(CLI::App& options) override { options.add_flag("--json", isJSON_, "One JSON array"); }

protected:
    int talk(DaemonClient& daemon) override {
        const json::value tasks = daemon.get("api/v1/tasks");
        if (isJSON_) {
            std::cout << plainJSON(tasks) << std::endl;
        } else {
            std::cout << taskTable(tasks.as_array(), terminalWidth()) << std::flush;
        }
        return exitStatus::done;
    }

private:
    bool isJSON_ = false;
};

}  // namespace

std::unique_ptr<Command> makeListCommand() { return std::make_unique<ListCommand>(); }

}  // namespace skein
