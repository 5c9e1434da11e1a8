#include "app/client/ClientCommand.h"

#include <CLI/CLI.hpp>

namespace skein {

namespace {

/// Commands that the daemon does to one task after another.
class TaskActionCommand final : public ClientCommand {
public:
    TaskActionCommand(Description description, std::string action)
        : ClientCommand(std::move(description)), action_(std::move(action)) {}

    void declare(CLI::App& options) override {
        options.add_option("TASK", tasks_, "An info-hash, the beginning of one, or a row of the list")->required();
    }

protected:
    int talk(DaemonClient& daemon) override {
        for (const std::string& infoHash : daemon.resolve(tasks_))
            daemon.post("api/v1/tasks/" + infoHash + "/" + action_);
        return exitStatus::done;
    }

private:
    const std::string action_;
    std::vector<std::string> tasks_;
};

std::unique_ptr<Command> make(const std::string& name, const std::string& purpose, const std::string& action) {
    return std::make_unique<TaskActionCommand>(Command::Description{name, purpose, "skein " + name + " 1"}, action);
}

}  // namespace

std::unique_ptr<Command> makePauseCommand() { return make("pause", "Pause tasks of the daemon", "pause"); }
std::unique_ptr<Command> makeResumeCommand() { return make("resume", "Go on with paused tasks", "resume"); }
std::unique_ptr<Command> makeVerifyTaskCommand() { return make("verify-task", "Hash a task's files", "verify"); }
std::unique_ptr<Command> makeRedownloadCommand() {
    return make("redownload", "Delete a task's files and download them again", "redownload");
}

}  // namespace skein
