#include "app/client/ClientCommand.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

class LabelCommand final : public ClientCommand {
public:
    LabelCommand() : ClientCommand({"label", "Say what a task is", "skein label 1 paper"}) {}

    void declare(CLI::App& options) override {
        options.add_option("TASK", task_, "An info-hash, the beginning of one, or its number in the list")->required();
        options.add_option("CATEGORY", category_, "paper, dataset, book, course, notes, other or uncategorized")
            ->required();
    }

protected:
    int talk(DaemonClient& daemon) override {
        const json::object change{{"category", category_}};
        daemon.patch("api/v1/tasks/" + daemon.resolve({task_}).front(), change);
        return exitStatus::done;
    }

private:
    std::string task_;
    std::string category_;
};

}  // namespace

std::unique_ptr<Command> makeLabelCommand() { return std::make_unique<LabelCommand>(); }

}  // namespace skein
