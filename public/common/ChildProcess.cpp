#include "public/common/ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#if __has_include(<crt_externs.h>)
#include <crt_externs.h>
#else
extern "C" char** environ;  // NOLINT(readability-redundant-declaration): not every system declares it
#endif

namespace skein {

namespace {

char** environmentOfOurs() {
#if __has_include(<crt_externs.h>)
    return *_NSGetEnviron();
#else
    return environ;
#endif
}

void check(int error, const std::string& program) {
    if (error != 0) throw std::system_error(error, std::generic_category(), program);
}

/// Which files a started program has: none of ours, and nothing to read or to write to.
class FileActions {
public:
    FileActions() { posix_spawn_file_actions_init(&actions); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
    ~FileActions() { posix_spawn_file_actions_destroy(&actions); }

    void closeOurs(const std::string& program) {
        check(posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0), program);
        check(posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0), program);
        check(posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0), program);
#if defined(__GLIBC__) && __GLIBC_PREREQ(2, 34)
        check(posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1), program);
#endif
    }

    posix_spawn_file_actions_t actions{};
};

/// A group of its own, so that an interrupt from the terminal is ours alone, and the signals as a fresh program has
/// them.
class Attributes {
public:
    Attributes() { posix_spawnattr_init(&attributes); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    ~Attributes() { posix_spawnattr_destroy(&attributes); }

    void startAfresh(const std::string& program) {
        sigset_t none{};
        sigset_t all{};
        sigemptyset(&none);
        sigfillset(&all);
        check(posix_spawnattr_setsigmask(&attributes, &none), program);
        check(posix_spawnattr_setsigdefault(&attributes, &all), program);
        check(posix_spawnattr_setpgroup(&attributes, 0), program);
        int flags = POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
#ifdef POSIX_SPAWN_CLOEXEC_DEFAULT
        flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#endif
        check(posix_spawnattr_setflags(&attributes, static_cast<short>(flags)), program);
    }

    posix_spawnattr_t attributes{};
};

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
    const std::string& program = arguments.at(0);
    FileActions files;
    files.closeOurs(program);
    Attributes attributes;
    attributes.startAfresh(program);
    std::vector<char*> texts;
    texts.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) texts.push_back(const_cast<char*>(argument.c_str()));
    texts.push_back(nullptr);
    check(
        posix_spawnp(&id_, program.c_str(), &files.actions, &attributes.attributes, texts.data(), environmentOfOurs()),
        program);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept : id_(std::exchange(other.id_, 0)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
    std::swap(id_, other.id_);
    return *this;
}

ChildProcess::~ChildProcess() {
    if (id_ == 0) return;
    ::kill(-id_, SIGKILL);  // its group: what it started goes with it
    while (::waitpid(id_, nullptr, 0) < 0 && errno == EINTR) {}
}

bool ChildProcess::hasEnded() {
    // A failure means that there is no such child any more: somebody else reaped it.
    if (id_ != 0 && ::waitpid(id_, nullptr, WNOHANG) != 0) id_ = 0;
    return id_ == 0;
}

}  // namespace skein
