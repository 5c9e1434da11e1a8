#include "app/CommandLine.h"

#include "app/Command.h"
#include "public/common/ErrorText.h"

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <string>

namespace skein {

namespace {

int run(Command& command, const GlobalOptions& global) {
    try {
        const int status = command.run(global);
        // What a full disk or a closed pipe swallowed was not done.
        if (!std::cout.flush()) throw CommandFailure(command.description().name, "writing the output failed");
        return status;
    } catch (const CommandFailure& failure) {
        reportFailure(failure.what());
    } catch (const std::exception& failure) {
        reportFailure(command.description().name + ": " + textOf(failure));
    }
    return exitStatus::failed;
}

}  // namespace

int runCommandLine(int argc, const char* const* argv) {
    GlobalOptions global;
    CLI::App program("Downloads and shares files: torrents, magnet links and HTTP.", "skein");
    program.set_version_flag("--version", "skein " SKEIN_VERSION);
    program.add_option("--home", global.givenHome, "Where skein keeps its files (default: $SKEIN_HOME)")
        ->type_name("DIR");
    program.require_subcommand(1);
    program.footer("Example:\n  skein show ubuntu.torrent\n\nskein COMMAND --help tells more of each command.");

    const auto commands = makeCommands();
    for (const auto& command : commands) {
        const auto& [name, purpose, example] = command->description();
        CLI::App* const options = program.add_subcommand(name, purpose);
        options->footer("Example:\n  " + example);
        options->fallthrough();
        command->declare(*options);
    }

    try {
        program.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return program.exit(help);
    } catch (const CLI::ParseError& error) {
        reportFailure(std::string("command line: ") + error.what() + "; see skein --help");
        return exitStatus::wrongCommandLine;
    }
    for (const auto& command : commands)
        if (program.got_subcommand(command->description().name)) return run(*command, global);
    return exitStatus::wrongCommandLine;
}

}  // namespace skein
