#include "downloads/DesktopNotifier.h"
#include "public/common/ThreadPools.h"
#include "public/common/WholeFile.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/wait.h>

namespace skein {
namespace {

namespace fs = std::filesystem;

class DesktopNotifierTest : public testing::Test {
protected:
    /// A program that runs `script`, with what it is given as "$@".
    std::vector<std::string> program(const std::string& script) {
        replaceWholeFile(folder.path() / "show", toBytes("#!/bin/sh\n" + script + "\n"), fs::perms{0700});
        return {(folder.path() / "show").string(), "--"};
    }
    std::string shown() {
        return fs::exists(output) ? std::string(asText(readWholeFile(output, 10'000))) : std::string();
    }
    bool hasNoChildren() {
        siginfo_t ignored{};
        return ::waitid(P_ALL, 0, &ignored, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
    }

    const TemporaryFolder folder;
    const fs::path output = folder.path() / "output";
    RecordingLogger log;
    RealClock clock;
    Simulation waiting;
    ThreadPools pools;
};

TEST_F(DesktopNotifierTest, showsNamesOneByOneAsTheyAreWithoutAShell) {
    DesktopNotifier notifier(pools.io(), pools.disk(), clock, log,
                             program(R"(printf '<%s>' "$@" >>)" + output.string()));
    notifier.sendCompletionNotification("$(touch x) <b>; 'a' \"");
    notifier.sendCompletionNotification("-名");
    waiting.runUntil([&] { return shown().ends_with("-名>"); });
    waiting.runUntil([&] { return hasNoChildren(); });
    const std::string tag = DesktopNotifier::systemCommand().front() == "notify-send" ? "&lt;b&gt;" : "<b>";
    EXPECT_EQ(shown(), "<--><Download Complete><$(touch x) " + tag + "; 'a' \"><--><Download Complete><-名>");
    asio::co_spawn(pools.io(), notifier.stop(), asio::use_future).get();
}

TEST_F(DesktopNotifierTest, endsAProgramThatHangsAndDoesWithoutAMissingOne) {
    DesktopNotifier hanging(pools.io(), pools.disk(), clock, log, program("echo >>" + output.string() + "; sleep 100"));
    hanging.sendCompletionNotification("a");
    waiting.runUntil([&] { return !shown().empty(); });
    asio::co_spawn(pools.io(), hanging.stop(), asio::use_future).get();
    waiting.runUntil([&] { return hasNoChildren(); });

    DesktopNotifier missing(pools.io(), pools.disk(), clock, log, {"/no/such/program"});
    for (int i = 0; i < 5; ++i) missing.sendCompletionNotification("a");
    waiting.runUntil([&] { return !log.lines().empty(); });
    asio::co_spawn(pools.io(), missing.stop(), asio::use_future).get();
    EXPECT_THAT(log.lines(), testing::SizeIs(1));
}

}  // namespace
}  // namespace skein
