#include "app/Command.h"

#include "public/common/Printable.h"
#include "public/common/ShownURL.h"

#include <cstdlib>
#include <iostream>

namespace skein {

using CommandMaker = std::unique_ptr<Command>();
CommandMaker makeAccelerateCommand;
CommandMaker makeAddCommand;
CommandMaker makeChatCommand;
CommandMaker makeConfigCommand;
CommandMaker makeCreateCommand;
CommandMaker makeDaemonCommand;
CommandMaker makeGetCommand;
CommandMaker makeInfoCommand;
CommandMaker makeLabelCommand;
CommandMaker makeListCommand;
CommandMaker makeLoginCommand;
CommandMaker makeLogoutCommand;
CommandMaker makeNoteCommand;
CommandMaker makePauseCommand;
CommandMaker makeRedownloadCommand;
CommandMaker makeRemoveCommand;
CommandMaker makeResumeCommand;
CommandMaker makeSeedCommand;
CommandMaker makeShowCommand;
CommandMaker makeStopCommand;
CommandMaker makeVerifyCommand;
CommandMaker makeVerifyTaskCommand;
CommandMaker makeWalletCommand;
CommandMaker makeWatchCommand;

std::vector<std::unique_ptr<Command>> makeCommands() {
    std::vector<std::unique_ptr<Command>> commands;
    for (CommandMaker* const make :
         {makeGetCommand,        makeSeedCommand,   makeVerifyCommand,     makeShowCommand,       makeCreateCommand,
          makeConfigCommand,     makeDaemonCommand, makeAddCommand,        makeListCommand,       makeInfoCommand,
          makePauseCommand,      makeResumeCommand, makeVerifyTaskCommand, makeRedownloadCommand, makeRemoveCommand,
          makeAccelerateCommand, makeLabelCommand,  makeNoteCommand,       makeWatchCommand,      makeStopCommand,
          makeLoginCommand,      makeLogoutCommand, makeWalletCommand,     makeChatCommand})
        commands.push_back(make());
    return commands;
}

namespace {

/// The value of an environment variable that is set and not empty.
std::optional<std::filesystem::path> pathFromEnvironment(const char* name) {
    const char* const value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return value;
}

}  // namespace

std::filesystem::path GlobalOptions::home() const {
    if (givenHome) return *givenHome;
    if (const auto home = pathFromEnvironment("SKEIN_HOME")) return *home;
#ifndef __APPLE__
    // A relative one is to be ignored, says the XDG Base Directory Specification.
    if (const auto data = pathFromEnvironment("XDG_DATA_HOME"); data && data->is_absolute()) return *data / "skein";
#endif
    const auto user = pathFromEnvironment("HOME");
    if (!user) throw CommandFailure("finding the home", "neither --home nor SKEIN_HOME nor HOME is given");
#ifdef __APPLE__
    return *user / "Library" / "Application Support" / "skein";
#else
    return *user / ".local" / "share" / "skein";
#endif
}

void reportFailure(std::string_view message) {
    std::cerr << "skein: " << printable(withShownURLs(message)) << std::endl;
}

}  // namespace skein
