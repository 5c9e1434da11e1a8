#include "app/client/ClientCommand.h"

#include <CLI/CLI.hpp>
#include <boost/json/value.hpp>

namespace skein {

namespace {

namespace json = boost::json;

/// Commands that the daemon does to one task after another.
class TaskActionCommand final : public ClientCommand {
public:
    TaskActionCommand(Description description, std::string action, bool startsAnew)
        : ClientCommand(std::move(description)), action_(std::move(action)), startsAnew_(startsAnew) {}

    void declare(CLI::App& options) override {
        options.add_option("TASK", tasks_, "An info-hash, the beginning of one, or its number in the list")->required();
    }

protected:
    int talk(DaemonClient& daemon) override {
        return forEach(daemon.resolve(tasks_), [&](const std::string& infoHash) {
            const json::value task = daemon.post("api/v1/tasks/" + infoHash + "/" + action_);
            if (startsAnew_) failIfError(infoHash, task);
        });
    }

private:
    const std::string action_;
    const bool startsAnew_;  // an error that the task has afterwards is this command's
    std::vector<std::string> tasks_;
};

std::unique_ptr<Command> make(const std::string& name, const std::string& purpose, const std::string& action,
                              bool startsAnew = true) {
    return std::make_unique<TaskActionCommand>(Command::Description{name, purpose, "skein " + name + " 1"}, action,
                                               startsAnew);
}

}  // namespace

std::unique_ptr<Command> makePauseCommand() { return make("pause", "Pause tasks of the daemon", "pause", false); }
std::unique_ptr<Command> makeResumeCommand() { return make("resume", "Go on with paused tasks", "resume"); }
std::unique_ptr<Command> makeVerifyTaskCommand() { return make("verify-task", "Hash a task's files", "verify"); }
std::unique_ptr<Command> makeRedownloadCommand() {
    return make("redownload", "Delete a task's files and download them again", "redownload");
}

}  // namespace skein
