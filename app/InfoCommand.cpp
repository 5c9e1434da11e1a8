#include "app/client/ClientCommand.h"
#include "app/client/TaskDetails.h"
#include "public/common/PlainJSON.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <cstdint>
#include <iostream>
#include <string>
#include <utility>

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
        const std::string path = "api/v1/tasks/" + daemon.resolve({task_}).front();
        json::value task = daemon.get(path);
        addFiles(daemon, path + "/files?offset=", task.as_object());
        if (isJSON_) {
            std::cout << plainJSON(task) << std::endl;
        } else {
            std::cout << taskDetails(task.as_object()) << std::flush;
        }
        return exitStatus::done;
    }

private:
    /// Those beyond the first page, which came with the task.
    static void addFiles(DaemonClient& daemon, const std::string& path, json::object& task) {
        json::array& files = task.at("files").as_array();
        while (std::cmp_less(files.size(), task.at("fileCount").to_number<std::int64_t>())) {
            const json::value page = daemon.get(path + std::to_string(files.size()));
            const json::array& more = page.at("files").as_array();
            if (more.empty()) break;  // the list has changed meanwhile
            files.insert(files.end(), more.begin(), more.end());
        }
    }

    std::string task_;
    bool isJSON_ = false;
};

}  // namespace

std::unique_ptr<Command> makeInfoCommand() { return std::make_unique<InfoCommand>(); }

}  // namespace skein
