#include "tests/support/ProgramRun.h"

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace skein {

namespace {

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

}  // namespace

ProgramRun::ProgramRun(const std::vector<std::string>& arguments, const std::string& terminal) {
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);

    const std::string inFile = terminal.empty() ? "/dev/null" : terminal;
    const std::string outFile = terminal.empty() ? (folder_.path() / "out").string() : terminal;
    const std::string errFile = folder_.path() / "err";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, inFile.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outFile.c_str(), O_WRONLY | O_CREAT, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errFile.c_str(), O_WRONLY | O_CREAT, 0600);
    const int error = ::posix_spawn(&process_, pointers[0], &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) throw std::system_error(error, std::generic_category(), arguments[0]);
}

ProgramRun::~ProgramRun() {
    if (process_ > 0) finish(std::chrono::seconds(0));
}

void ProgramRun::signal(int number) const { ::kill(process_, number); }

std::string ProgramRun::out() const { return contentOf(folder_.path() / "out"); }

std::string ProgramRun::err() const { return contentOf(folder_.path() / "err"); }

ProgramRun::Result ProgramRun::finish(std::chrono::seconds patience) {
    const auto giveUpAt = std::chrono::steady_clock::now() + patience;
    int status = 0;
    while (::waitpid(process_, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() >= giveUpAt) ::kill(process_, SIGKILL);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    process_ = -1;
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), out(), err()};
}

}  // namespace skein
