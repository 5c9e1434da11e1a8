#include "tests/app/ProgramTest.h"

#include <fcntl.h>
#if __has_include(<pty.h>)
#include <pty.h>
#else
#include <util.h>
#endif
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace skein {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

/// A terminal without anybody before it; the program has the other end.
class PseudoTerminal {
public:
    PseudoTerminal() {
        winsize size{20, 100, 0, 0};
        // Theirs is held open, so that what is left in it can be read after the program.
        if (::openpty(&ours_, &theirs_, nullptr, nullptr, &size) != 0) throw std::runtime_error("no terminal");
        ::fcntl(ours_, F_SETFL, O_NONBLOCK);
    }
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;
    ~PseudoTerminal() {
        ::close(theirs_);
        ::close(ours_);
    }

    std::string name() const { return ::ttyname(theirs_); }
    void type(std::string_view keys) const { ASSERT_EQ(::write(ours_, keys.data(), keys.size()), std::ssize(keys)); }
    /// What was shown from where the last call ended until `text` was; fails without it.
    std::string readUntil(std::string_view text) {
        const auto giveUpAt = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (unread_.find(text) == std::string::npos) {
            char bytes[4096];
            const ssize_t count = ::read(ours_, bytes, sizeof bytes);
            if (count > 0) unread_.append(bytes, static_cast<std::size_t>(count));
            if (count < 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
            if (std::chrono::steady_clock::now() > giveUpAt) throw std::runtime_error("not shown: " + unread_);
        }
        const std::size_t end = unread_.find(text) + text.size();
        const std::string shown = unread_.substr(0, end);
        unread_.erase(0, end);
        return shown;
    }
    /// Whether keys are lines, as for a shell.
    bool isAsUsual() const {
        termios mode{};
        ::tcgetattr(theirs_, &mode);
        return (mode.c_lflag & (ICANON | ECHO)) == (ICANON | ECHO);
    }

private:
    int ours_ = -1;
    int theirs_ = -1;
    std::string unread_;
};

using DaemonProgramTest = ProgramTest;

TEST_F(DaemonProgramTest, aDaemonThatCannotSayWhereItIsEndsCleanly) {
    fs::create_directories(home.path() / "daemon.json" / "in the way");
    const auto result = ProgramRun(daemon()).finish();
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("daemon.json: "));
}

TEST_F(DaemonProgramTest, commandsSayThatADaemonDoesNotAnswer) {
    const auto server = startDaemon();
    server->signal(SIGSTOP);
    ProgramRun list(line({"list"}));
    ProgramRun add(line({"add", "http://127.0.0.1:1/x"}));
    ProgramRun watch(line({"watch", "--json"}));
    EXPECT_EQ(list.finish().err, "skein: the daemon: no answer within 5 s\n");
    EXPECT_EQ(add.finish().status, 1);
    EXPECT_EQ(watch.finish(std::chrono::seconds(12)).status, 1);
    server->signal(SIGCONT);
    EXPECT_EQ(skein({"list", "--json"}).out, "[]\n") << "what was given up is not done later";
}

TEST_F(DaemonProgramTest, addTellsWhichSourceWasRefused) {
    const auto server = startDaemon();
    write("wrong.torrent", "no torrent");
    const auto result = skein({"add", path("wrong.torrent"), "ftp://127.0.0.1/a", "http://", "magnet:?dn=x"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("skein: " + path("wrong.torrent") + ": Invalid BEncode format"));
    EXPECT_THAT(result.err, HasSubstr("skein: ftp://127.0.0.1/a: not a magnet link, a .torrent file or an http(s)"));
    EXPECT_THAT(result.err, HasSubstr("skein: http://: not a magnet link"));
    EXPECT_THAT(result.err, HasSubstr("skein: magnet:?dn=x: Magnet link missing info hash"));
    EXPECT_EQ(skein({"list", "--json"}).out, "[]\n");
}

TEST_F(DaemonProgramTest, watchSteersTasksAndLeavesTheTerminalAsItWas) {
    write("film", std::string(40'000, 'f'));
    ASSERT_EQ(skein({"create", path("film"), "-o", path("film.torrent")}).status, 0);
    const auto server = startDaemon();
    ASSERT_EQ(skein({"add", path("film.torrent")}).status, 0);

    PseudoTerminal terminal;
    {
        ProgramRun watch(line({"watch"}), terminal.name());
        EXPECT_THAT(terminal.readUntil("Seeding"), HasSubstr("film"));
        EXPECT_FALSE(terminal.isAsUsual());
        terminal.type("p");
        terminal.readUntil("Paused");
        terminal.type("dy");
        terminal.readUntil("0 tasks");
        terminal.type("q");
        EXPECT_EQ(watch.finish().status, 0);
        EXPECT_TRUE(terminal.isAsUsual());
        EXPECT_THAT(terminal.readUntil("\x1B[?1049l"), HasSubstr("\x1B[?25h"));
    }
    EXPECT_TRUE(fs::exists(path("film")));

    for (const auto& [signal, status] : {std::pair(SIGINT, 130), std::pair(SIGTERM, 143)}) {
        ProgramRun watch(line({"watch"}), terminal.name());
        terminal.readUntil("\x1B[?1049h");
        terminal.readUntil("0 tasks");
        watch.signal(signal);
        EXPECT_EQ(watch.finish().status, status);
        EXPECT_TRUE(terminal.isAsUsual());
    }

    ProgramRun lines(line({"watch", "--json"}));
    waitUntil([&] { return !lines.out().empty(); });
    ProgramRun watch(line({"watch"}), terminal.name());
    terminal.readUntil("\x1B[?1049h");
    terminal.readUntil("0 tasks");
    EXPECT_EQ(skein({"stop"}).status, 0);
    EXPECT_EQ(server->finish().status, 0);
    const auto orphan = watch.finish();
    EXPECT_EQ(orphan.status, 1);
    EXPECT_EQ(orphan.err, "skein: watch: the daemon has gone\n");
    EXPECT_TRUE(terminal.isAsUsual());
    EXPECT_EQ(lines.finish().out, "{\"type\":\"list\",\"tasks\":[]}\n");
}

}  // namespace
}  // namespace skein
