#include "app/client/ClientCommand.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

class RemoveCommand final : public ClientCommand {
public:
    RemoveCommand() : ClientCommand({"remove", "Take tasks off the daemon's list", "skein remove 1 --delete-files"}) {}

    void declare(CLI::App& options) override {
        options.add_option("TASK", tasks_, "An info-hash, the beginning of one, or its number in the list")->required();
        options.add_flag("--delete-files", deletesFiles_, "Delete what was downloaded, too");
    }

protected:
    int talk(DaemonClient& daemon) override {
        for (const std::string& infoHash : daemon.resolve(tasks_))
            daemon.remove("api/v1/tasks/" + infoHash + (deletesFiles_ ? "?deleteFiles=true" : ""));
        return exitStatus::done;
    }

private:
    std::vector<std::string> tasks_;
    bool deletesFiles_ = false;
};

}  // namespace

std::unique_ptr<Command> makeRemoveCommand() { return std::make_unique<RemoveCommand>(); }

}  // namespace skein
