#include "app/client/ClientCommand.h"
#include "app/client/TaskDetails.h"
#include "public/common/PlainJSON.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

class InfoCommand final : public ClientCommand {
public:
    InfoCommand() : ClientCommand({"info", "Show one task of the daemon", "skein info 1"}) {}

    void declare(CLI::App& options) override {
        options.add_option("TASK", task_, "An info-hash, the beginning of one, or its number in the list")->required();
        options.add_flag("--json", isJSON_, "One JSON object");
    }

protected:
    int talk(DaemonClient& daemon) override {
        const json::value task = daemon.get("api/v1/tasks/" + daemon.resolve({task_}).front());
        if (isJSON_) {
            std::cout << plainJSON(task) << std::endl;
        } else {
            std::cout << taskDetails(task.as_object()) << std::flush;
        }
        return exitStatus::done;
    }

private:
    std::string task_;
    bool isJSON_ = false;
};

}  // namespace

std::unique_ptr<Command> makeInfoCommand() { return std::make_unique<InfoCommand>(); }

}  // namespace skein
