#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace skein {

/// How the program ends. Whoever calls it decides by these numbers.
namespace exitStatus {
inline constexpr int done = 0;
inline constexpr int failed = 1;
inline constexpr int wrongCommandLine = 2;
inline constexpr int interrupted = 130;  ///< by SIGINT; by SIGTERM it is 143
}  // namespace exitStatus

/// What stands on the command line for every command.
struct GlobalOptions {
    std::optional<std::filesystem::path> givenHome;

    /// Where our files live: as given, else $SKEIN_HOME, else the platform's place for a user's application data.
    /// Throws CommandFailure when no place can be told.
    std::filesystem::path home() const;
};

/// Ends a command with exit status 1 and one line on stderr: "skein: <what>: <why>".
class CommandFailure : public std::runtime_error {
public:
    CommandFailure(std::string_view what, std::string_view why)
        : std::runtime_error(std::string(what).append(": ").append(why)) {}
};

/// One command of the program: what it is called, which options it has, what it does.
///
/// To add one, write a file like ShowCommand.cpp and put its maker into the list in Command.cpp. Owner and thread:
/// main.
class Command {
public:
    struct Description {
        std::string name;
        std::string purpose;
        std::string example;  ///< a command line that works, for --help
    };

    explicit Command(Description description) : description_(std::move(description)) {}
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;
    virtual ~Command() = default;

    const Description& description() const noexcept { return description_; }
    /// Names the options and where their values go, which are members. A check there that throws CLI::ValidationError
    /// ends the program with exit status 2.
    virtual void declare(CLI::App& options) = 0;
    /// Does it and returns the exit status. Throws CommandFailure; another std::exception counts as a failure too.
    virtual int run(const GlobalOptions& global) = 0;

private:
    Description description_;
};

/// Every command, in the order in which --help lists them.
std::vector<std::unique_ptr<Command>> makeCommands();

/// Says on stderr what failed, in one line whatever the text holds: "skein: <message>".
void reportFailure(std::string_view message);

}  // namespace skein
