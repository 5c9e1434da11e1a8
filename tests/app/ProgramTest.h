#pragma once

#include "public/common/WholeFile.h"
#include "tests/support/ProgramRun.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace skein {

/// The program as a user starts it, with a home and a folder of its own.
class ProgramTest : public testing::Test {
protected:
    std::vector<std::string> line(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {SKEIN_PROGRAM, "--home", home.path()});
        return arguments;
    }
    /// Runs it to its end.
    ProgramRun::Result skein(std::vector<std::string> arguments) const {
        return ProgramRun(line(std::move(arguments))).finish();
    }
    /// The command line of a daemon that keeps to loopback.
    std::vector<std::string> daemon() const {
        return line({"daemon", "--api", "127.0.0.1:0", "--dir", folder.path(), "--bind", "127.0.0.1", "--port", "0",
                     "--no-dht", "--no-lsd", "--no-pex", "--no-cache-sites", "--no-trackers", "--no-history"});
    }
    /// One that serves.
    std::unique_ptr<ProgramRun> startDaemon() const {
        auto run = std::make_unique<ProgramRun>(daemon());
        waitUntil([&] { return run->out().find("listening on") != std::string::npos; });
        return run;
    }
    static void waitUntil(const std::function<bool()>& condition) {
        for (int i = 0; i < 6000 && !condition(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ASSERT_TRUE(condition());
    }
    std::string path(const std::string& name) const { return folder.path() / name; }
    void write(const std::string& name, std::string_view content) const {
        std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
        replaceWholeFile(path(name), asBytes(content));
    }

    TemporaryFolder home;
    TemporaryFolder folder;
};

}  // namespace skein
