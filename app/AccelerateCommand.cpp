#include "app/client/ClientCommand.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

class AccelerateCommand final : public ClientCommand {
public:
    AccelerateCommand()
        : ClientCommand({"accelerate", "Ask for a task's acceleration, or no longer", "skein accelerate 1 on"}) {}

    void declare(CLI::App& options) override {
        options.add_option("TASK", task_, "An info-hash, the beginning of one, or its number in the list")->required();
        options.add_option("FLAG", flag_, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    }

protected:
    int talk(DaemonClient& daemon) override {
        const json::object change{{"accelerateEnabled", flag_ == "on"}};
        daemon.patch("api/v1/tasks/" + daemon.resolve({task_}).front(), change);
        return exitStatus::done;
    }

private:
    std::string task_;
    std::string flag_;
};

}  // namespace

std::unique_ptr<Command> makeAccelerateCommand() { return std::make_unique<AccelerateCommand>(); }

}  // namespace skein
