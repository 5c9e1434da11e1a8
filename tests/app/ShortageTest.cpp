#include "tests/app/ProgramTest.h"

#if defined(__linux__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace skein {
namespace {

/// In KiB, as the shell takes them.
constexpr int giant = 1 << 20U;
/// What the program has without the stacks of its threads, generously.
constexpr int ownMemory = giant / 2;

/// The program where the system gives little. The sanitizers' own memory fits into no limit.
class ShortageTest : public ProgramTest {
protected:
    std::vector<std::string> limited(const std::string& limits, std::vector<std::string> arguments) const {
        std::vector<std::string> all{"/bin/sh", "-c", limits + " && exec \"$0\" \"$@\""};
        for (std::string& argument : line(std::move(arguments))) all.push_back(std::move(argument));
        return all;
    }
    /// Each thread has a stack of 1 GiB, and the program may have so many of them and no more: unlike a limit of
    /// threads this one holds for root as well.
    static std::string threads(int count) {
        return "ulimit -S -s " + std::to_string(giant) + " && ulimit -v " + std::to_string(ownMemory + count * giant);
    }
    static std::string memory(int kibibytes) { return "ulimit -v " + std::to_string(kibibytes); }

    /// Commands that need threads and memory of their own; the last one asks a daemon, which has enough.
    std::vector<std::vector<std::string>> commands() {
        write("file", std::string(100'000, 'x'));
        EXPECT_EQ(skein({"create", path("file"), "-o", path("file.torrent")}).status, 0);
        daemon_ = startDaemon();
        return {{"show", path("file.torrent")},
                {"create", path("file"), "-o", path("other.torrent"), "--overwrite"},
                {"verify", path("file.torrent"), "--dir", folder.path()},
                {"get", path("file.torrent"), "--dir", folder.path(), "--port", "0", "--no-dht", "--no-lsd", "--bind",
                 "127.0.0.1", "--no-trackers"},
                {"list"}};
    }
    void expectDoneOrOneLine(const std::string& limits, const std::vector<std::string>& arguments) const {
        const ProgramRun::Result result = ProgramRun(limited(limits, arguments)).finish();
        if (result.status == 0) return;
        EXPECT_EQ(result.status, 1) << arguments[0] << " after " << limits << ": " << result.err;
        // What was done until then may have told its progress.
        EXPECT_THAT(result.err, testing::MatchesRegex("([^\n]* %[^\n]*\n)*skein: [^\n]*\n"))
            << arguments[0] << " after " << limits;
    }

private:
    std::unique_ptr<ProgramRun> daemon_;
};

TEST_F(ShortageTest, withFewThreadsACommandWorksOrSaysSo) {
    const std::vector<std::vector<std::string>> all = commands();
    for (int count = 0; count <= 6; ++count)
        for (const auto& arguments : all) expectDoneOrOneLine(threads(count), arguments);
    const auto& verify = all[2];
    EXPECT_EQ(ProgramRun(limited(threads(0), verify)).finish().err,
              "skein: verify: no thread can be started: Resource temporarily unavailable\n");
    EXPECT_EQ(ProgramRun(limited(threads(1), verify)).finish().status, 1);
    EXPECT_EQ(ProgramRun(limited(threads(2), verify)).finish().status, 0) << "one for each pool is enough";
}

TEST_F(ShortageTest, withLittleMemoryACommandWorksOrSaysSo) {
    const std::vector<std::vector<std::string>> all = commands();
    for (int limit = 40'000; limit <= 160'000; limit += 12'000)
        for (const auto& arguments : all) expectDoneOrOneLine(memory(limit), arguments);
}

}  // namespace
}  // namespace skein

#endif
