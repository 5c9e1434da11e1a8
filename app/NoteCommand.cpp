#include "app/client/ClientCommand.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

class NoteCommand final : public ClientCommand {
public:
    NoteCommand() : ClientCommand({"note", "Write a note on a task", "skein note 1 'for the reading group'"}) {}

    void declare(CLI::App& options) override {
        options.add_option("TASK", task_, "An info-hash, the beginning of one, or its number in the list")->required();
        options.add_option("TEXT", notes_, "The note")->required();
    }

protected:
    int talk(DaemonClient& daemon) override {
        const json::object change{{"notes", notes_}};
        daemon.patch("api/v1/tasks/" + daemon.resolve({task_}).front(), change);
        return exitStatus::done;
    }

private:
    std::string task_;
    std::string notes_;
};

}  // namespace

std::unique_ptr<Command> makeNoteCommand() { return std::make_unique<NoteCommand>(); }

}  // namespace skein
