#include "downloads/HTTPDownloadSession.h"
#include "public/common/WholeFile.h"
#include "tests/Core/engine/FaultyCalls.h"
#include "tests/support/ScriptedHTTPServer.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <fstream>
#include <sys/resource.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using Kind = HTTPDownloadSession::State::Kind;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

class HTTPDownloadSessionTest : public testing::Test {
protected:
    HTTPDownloadSessionTest() {
        for (std::size_t i = 0; i < 100'000; ++i) content.push_back(static_cast<std::uint8_t>(i * i >> 7U));
        std::filesystem::create_directory(folder);
    }
    ~HTTPDownloadSessionTest() override {
        if (session) simulation.finish(session->stop());
        client.stop();
        simulation.finish(server.stop());
    }

    std::unique_ptr<HTTPDownloadSession> make(const std::string& url) {
        auto made = std::make_unique<HTTPDownloadSession>(
            HTTPDownloadSession::Environment{simulation.executor(), simulation.executor(), simulation, random, log,
                                             client, resumeFolder, nullptr, files},
            url, folder);
        made->setCallbacks(
            {.onStateChanged = [this](const auto& state) { states.push_back(state.kind), message = state.message; },
             .onProgressUpdated = [this](double part, std::int64_t bytes, std::int64_t,
                                         double speed) { fraction = part, downloaded = bytes, rate = speed; },
             .onFileInfoReceived = [this](const std::string& newName, std::int64_t) { name = newName; },
             .onStatusMessage = [this](const std::string& text) { statuses.push_back(text); }});
        return made;
    }
    /// A new session goes as far as `kind`, from whatever the one before left.
    void start(Kind kind, const std::string& target = "/dir/file.bin") {
        if (session) simulation.finish(session->stop());
        states.clear();
        statuses.clear();
        name.clear();
        session = make(target.starts_with("http") ? target : server.url(target));
        if (keepsRecord) session->keepRecord();
        simulation.finish(session->setDownloadLimit(limit));
        simulation.finish(session->start());
        waitFor(kind);
    }
    void waitUntilWhole() {
        waitFor(Kind::completed);
        EXPECT_EQ(read(name), content);
    }
    /// A new session brings the whole file, from whatever the one before left.
    void complete() {
        start(Kind::completed);
        waitUntilWhole();
    }
    void resumeToTheEnd() {
        states.clear();
        simulation.finish(session->resume());
        waitUntilWhole();
    }
    void waitFor(Kind kind) {
        simulation.runUntil(
            [&] { return !states.empty() && (states.back() == kind || states.back() == Kind::failed); });
        EXPECT_EQ(states.back(), kind) << message;
    }
    /// Starts, and waits until all that the server gives is stored.
    void startUpTo(std::int64_t bytes) {
        stallAfter = static_cast<std::size_t>(bytes);
        start(Kind::downloading);
        simulation.runUntil([&] { return std::filesystem::file_size(folder / "file.bin.part") == stallAfter; });
        simulation.advance(1s);  // the next report
        EXPECT_EQ(downloaded, bytes);
        stallAfter = SIZE_MAX;
    }
    void expectRetry(std::chrono::seconds delay) {
        const std::string text = "retrying in " + std::to_string(delay.count()) + " s";
        simulation.runUntil([&] { return statuses.back().find(text) != std::string::npos; });
        const auto requests = server.requests().size();
        simulation.advance(delay - 1ms);
        EXPECT_EQ(server.requests().size(), requests);
        simulation.advance(1ms);
        simulation.runUntil([&] { return server.requests().size() == requests + 1; });
    }
    Bytes read(const std::string& fileName) const { return readWholeFile(folder / fileName, 1U << 30U); }
    std::string lastHeader(const std::string& header) const { return server.requests().back().header(header); }
    std::size_t filesIn(const std::filesystem::path& where) const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(where), {}));
    }

    Simulation simulation;
    TemporaryFolder home;
    const std::filesystem::path folder = home.path() / "downloads";
    const std::filesystem::path resumeFolder = home.path() / "resume";
    SecureRandom random;
    FileLogger log;
    FaultyCalls files;
    Bytes content;
    std::string entityTag = "\"one\"";
    std::size_t stallAfter = SIZE_MAX;
    bool cutsOff = false;
    bool keepsRecord = false;
    std::int64_t limit = 0;
    ScriptedHTTPServer::Script script = [this](const SeenHTTPRequest& seen) {
        HTTPReply reply = HTTPReply::file(seen, content, entityTag);
        reply.stallAfter = stallAfter;
        reply.cutsOff = cutsOff;
        return reply;
    };
    ScriptedHTTPServer server{simulation.executor(), [this](const SeenHTTPRequest& seen) { return script(seen); }};
    HTTPClient client;
    std::unique_ptr<HTTPDownloadSession> session;
    std::vector<Kind> states;
    std::vector<std::string> statuses;
    std::string message, name;
    double fraction = -1, rate = -1;
    std::int64_t downloaded = -1;
};

TEST_F(HTTPDownloadSessionTest, downloadsAFileAndTellsOfIt) {
    complete();
    EXPECT_THAT(statuses, ElementsAre("Connecting...", "Downloading...", "Downloading file.bin", "Download complete"));
    EXPECT_EQ(fraction, 1);
    EXPECT_EQ(downloaded, 100'000);
    EXPECT_THAT(lastHeader("user-agent"), StartsWith("Mozilla/5.0 (Macintosh;"));
    EXPECT_EQ(filesIn(folder), 1U);
    EXPECT_EQ(filesIn(resumeFolder), 1U) << "the file is remembered";
    simulation.finish(session->start());
    EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(HTTPDownloadSessionTest, aKeptRecordFindsAFinishedFileAgainHoweverItEnded) {
    keepsRecord = true;
    start(Kind::completed);
    for (const bool isRenamed : {true, false}) {
        if (!isRenamed) std::filesystem::rename(folder / "file.bin", folder / "file.bin.part");
        complete();
        EXPECT_EQ(server.requests().size(), 1U);
        EXPECT_EQ(name, "file.bin");
        EXPECT_EQ(filesIn(folder), 1U);
    }
    replaceWholeFile(folder / "file.bin", toBytes("another"));
    complete();
    EXPECT_EQ(name, "file (1).bin");
    simulation.finish(session->clearResumeData());
    EXPECT_EQ(filesIn(folder), 2U);
    EXPECT_EQ(filesIn(resumeFolder), 0U);
}

TEST_F(HTTPDownloadSessionTest, aLostConnectionIsMadeAnewWithGrowingDelaysAndThenGivenUp) {
    stallAfter = 40'000;
    cutsOff = true;
    const auto whole = script;
    script = [&](SeenHTTPRequest seen) {
        seen.headers.erase("range");  // so that no retry comes further
        return whole(seen);
    };
    start(Kind::downloading);
    for (const auto delay : {1s, 2s, 4s, 8s, 16s}) expectRetry(delay);
    waitFor(Kind::failed);
    EXPECT_EQ(server.requests().size(), 6U);
    EXPECT_EQ(statuses.back(), "Download error: " + message);
    EXPECT_EQ(read("file.bin.part").size(), 40'000U);

    script = whole;
    cutsOff = false;
    stallAfter = SIZE_MAX;
    resumeToTheEnd();
    EXPECT_EQ(lastHeader("range"), "bytes=40000-");
    EXPECT_EQ(lastHeader("if-range"), "\"one\"");
    EXPECT_THAT(statuses, testing::Contains("Resumed from 39.1 KiB"));
}

TEST_F(HTTPDownloadSessionTest, silenceIsALostConnection) {
    startUpTo(1000);
    simulation.advance(HTTPDownloadSession::stallLimit - 2s);
    EXPECT_EQ(states.back(), Kind::downloading);
    EXPECT_EQ(rate, 0);
    simulation.advance(1s);
    expectRetry(1s);
    waitUntilWhole();
}

TEST_F(HTTPDownloadSessionTest, aServerThatAcceptsAndSaysNothingIsALostConnection) {
    const auto honest = script;
    script = [](const SeenHTTPRequest&) { return HTTPReply{.raw = Bytes()}; };
    start(Kind::connecting);
    simulation.runUntil([&] { return server.requests().size() == 1; });
    simulation.advance(HTTPDownloadSession::stallLimit);
    script = honest;
    expectRetry(1s);
    waitUntilWhole();
}

TEST_F(HTTPDownloadSessionTest, aBusyServerIsAskedAgainWhenItSaysOrWithGrowingDelaysAndThenGivenUp) {
    const auto honest = script;
    std::string retryAfter;
    int status = 503;
    script = [&](const SeenHTTPRequest&) {
        HTTPReply reply = HTTPReply::text("later", status);
        if (!retryAfter.empty()) reply.headers.push_back({"Retry-After", retryAfter});
        return reply;
    };
    start(Kind::connecting);
    for (const auto delay : {1s, 2s, 4s, 8s, 16s}) expectRetry(delay);
    waitFor(Kind::failed);
    EXPECT_EQ(message, "HTTP 503");
    EXPECT_EQ(server.requests().size(), 6U);

    status = 429;
    const auto date = std::chrono::floor<std::chrono::seconds>(simulation.wallNow()) + 90s;
    const std::time_t seconds = date.time_since_epoch().count();
    char asDate[64];
    std::strftime(asDate, sizeof asDate, "%a, %d %b %Y %H:%M:%S GMT", std::gmtime(&seconds));
    for (const auto& [said, delay] : {std::pair<std::string, std::chrono::seconds>{"30", 30s},
                                      {asDate, 90s},
                                      {"Sun, 06 Nov 1994 08:49:37 GMT", 1s},
                                      {"99999999999999999999", HTTPDownloadSession::longestRetryDelay},
                                      {"soon", 1s}}) {
        retryAfter = said;
        start(Kind::connecting);
        simulation.runUntil([&] { return statuses.back().starts_with("The server is busy (HTTP 429), retrying in "); });
        EXPECT_THAT(statuses.back(), HasSubstr(" " + std::to_string(delay.count()) + " s (1 of 5)")) << said;
    }
    script = honest;
    expectRetry(1s);
    waitUntilWhole();
}

TEST_F(HTTPDownloadSessionTest, anotherQueryFindsItsPartWhereTheServerSaysThatItIsTheSameFile) {
    const auto begin = [&](const std::string& target) {
        stallAfter = 30'000;
        start(Kind::downloading, target);
        simulation.runUntil([&] { return std::filesystem::file_size(folder / "file.bin.part") == stallAfter; });
        stallAfter = SIZE_MAX;
    };
    begin("/dir/file.bin?token=old");
    start(Kind::completed, "/dir/file.bin?token=new");
    EXPECT_EQ(lastHeader("range"), "bytes=30000-");
    EXPECT_EQ(lastHeader("if-range"), "\"one\"");
    EXPECT_EQ(name, "file.bin");
    EXPECT_EQ(read(name), content);
    EXPECT_EQ(filesIn(resumeFolder), 1U) << "the file is remembered";

    // Two files of one address, of which the query says which: neither touches the other's part.
    std::filesystem::remove(folder / "file.bin");
    begin("/dir/file.bin?id=1");
    const Bytes first = std::exchange(content, Bytes(100'000, 7));
    for (const std::string other : {"\"two\"", "W/\"one\"", ""}) {
        entityTag = other;
        start(Kind::completed, "/dir/file.bin?id=2");
        EXPECT_EQ(read(name), content) << other;
        EXPECT_EQ(read("file.bin.part").size(), 30'000U);
    }
    entityTag = "\"one\"";
    content.push_back(0);  // the tag alone is not believed
    start(Kind::completed, "/dir/file.bin?id=3");
    EXPECT_EQ(read(name), content);
    content = first;
    start(Kind::completed, "/dir/file.bin?id=1");
    EXPECT_EQ(lastHeader("range"), "bytes=30000-");
    EXPECT_EQ(read(name), content);
}

TEST_F(HTTPDownloadSessionTest, aSessionGoesOnWhereTheLastOneWasStoppedOrKilled) {
    startUpTo(30'000);
    const auto record = ResumeData::fileFor(resumeFolder, session->url(), folder);
    const Bytes first = readWholeFile(record, 10'000);  // as a kill would leave it, written with the head
    simulation.finish(session->stop());
    const Bytes stopped = readWholeFile(record, 10'000);
    complete();
    EXPECT_EQ(lastHeader("range"), "bytes=30000-");

    // After a restart of the machine only what was certainly on the disk counts.
    const auto fromAnotherBoot = [](const Bytes& data) {
        std::string text(asText(data));
        text.insert(text.find("\"bootID\":\"") + 10, "x");
        return toBytes(text);
    };
    const std::tuple<Bytes, std::string> records[] = {{first, "bytes=50000-"},
                                                      {stopped, "bytes=50000-"},
                                                      {fromAnotherBoot(stopped), "bytes=30000-"},
                                                      {fromAnotherBoot(first), ""},
                                                      {toBytes("{\"damaged\":"), ""}};
    for (const auto& [data, range] : records) {
        std::filesystem::rename(folder / "file.bin", folder / "file.bin.part");
        std::filesystem::resize_file(folder / "file.bin.part", 50'000);
        replaceWholeFile(record, data);
        start(Kind::completed);
        EXPECT_EQ(lastHeader("range"), range);
        EXPECT_EQ(readWholeFile(simulation.finish(session->destinationURL()), 1U << 20U), content);
    }
}

TEST_F(HTTPDownloadSessionTest, pausesAndResumes) {
    startUpTo(20'000);
    simulation.finish(session->pause());
    EXPECT_EQ(statuses.back(), "Paused");
    simulation.runUntil([&] { return server.openConnections() == 0; });
    simulation.advance(1h);
    EXPECT_EQ(server.requests().size(), 1U);
    EXPECT_THAT(states, ElementsAre(Kind::connecting, Kind::downloading, Kind::paused));
    simulation.start(session->pause());
    simulation.start(session->resume());
    simulation.start(session->start());
    waitUntilWhole();
    EXPECT_EQ(server.requests().size(), 2U);
}

TEST_F(HTTPDownloadSessionTest, aFileThatChangedOrComesOnlyAsAWholeIsStartedAgain) {
    const auto honest = script;
    for (const std::string answer : {"another", "another without if-range", "whole", "416", "bytes=7-"}) {
        std::filesystem::remove(folder / "file.bin");
        entityTag = "\"one\"";
        script = honest;
        startUpTo(50'000);
        script = [&](SeenHTTPRequest seen) {
            const bool hasRange = seen.headers.contains("range");
            if (answer == "416" && hasRange) return HTTPReply::text("", 416);
            if (answer == "bytes=7-" && hasRange) seen.headers["range"] = answer;
            if (answer == "whole") seen.headers.erase("range");
            if (answer == "another without if-range") seen.headers.erase("if-range");
            return honest(seen);
        };
        if (answer.starts_with("another")) entityTag = "\"two\"";
        content.front() ^= 1U;
        content.push_back(0);
        complete();
    }
}

TEST_F(HTTPDownloadSessionTest, nothingIsOverwrittenAndNoNameLeadsElsewhere) {
    replaceWholeFile(folder / "file.bin", toBytes("mine"));
    replaceWholeFile(folder / "file (1).bin.part", toBytes("another's"));
    complete();
    EXPECT_EQ(name, "file (2).bin");
    EXPECT_EQ(asText(read("file.bin")), "mine");
    EXPECT_EQ(asText(read("file (1).bin.part")), "another's");

    std::filesystem::remove(folder / "file.bin");
    std::filesystem::remove(folder / "file (2).bin");
    startUpTo(10);
    replaceWholeFile(folder / "file.bin", toBytes("late"));
    simulation.finish(session->pause());
    resumeToTheEnd();
    EXPECT_EQ(name, "file (1).bin");
    EXPECT_EQ(asText(read("file.bin")), "late");

    std::filesystem::remove(folder / "file (1).bin");
    const auto plain = script;
    script = [&](const SeenHTTPRequest& seen) {
        HTTPReply reply = plain(seen);
        reply.headers.push_back({"Content-Disposition", "attachment; filename=\"../../evil.txt\""});
        return seen.target == "/there" ? reply : HTTPReply::redirect("/there");
    };
    complete();
    EXPECT_EQ(name, "evil.txt");
}

TEST_F(HTTPDownloadSessionTest, aFileThatTookThePlaceOfItsPartIsLeftAlone) {
    const auto part = folder / "file.bin.part";
    const auto startAndReplace = [&] {
        std::filesystem::remove(part);
        startUpTo(10'000);
        replaceWholeFile(part, toBytes("mine"));
    };
    startAndReplace();
    simulation.advance(HTTPDownloadSession::stallLimit - 1s);
    expectRetry(1s);  // and goes on
    expectRetry(2s);
    waitUntilWhole();
    EXPECT_EQ(name, "file (1).bin");
    EXPECT_EQ(asText(read("file.bin.part")), "mine");

    std::filesystem::remove(folder / "file (1).bin");
    startAndReplace();
    simulation.finish(session->pause());
    resumeToTheEnd();
    EXPECT_EQ(name, "file (1).bin");
    EXPECT_EQ(asText(read("file.bin.part")), "mine");

    std::filesystem::remove(folder / "file (1).bin");
    startAndReplace();
    simulation.finish(session->stop());
    simulation.finish(session->clearResumeData());
    EXPECT_EQ(asText(read("file.bin.part")), "mine");
    EXPECT_EQ(filesIn(resumeFolder), 0U);
}

TEST_F(HTTPDownloadSessionTest, killedWhileItBeginsOrEndsItFindsItsFileAgain) {
    const auto part = folder / "file.bin.part";
    // Foretold and just made: an empty part is taken over, what somebody else has put there since is not.
    for (const std::string held : {"", "mine"}) {
        startUpTo(10);
        const auto record = ResumeData::fileFor(resumeFolder, session->url(), folder);
        simulation.finish(session->stop());
        auto data = ResumeData::load(record, session->url()).value();
        data.part = {};
        data.save(record);
        std::ofstream(part) << held;
        complete();
        EXPECT_EQ(name, held.empty() ? "file.bin" : "file (1).bin");
        std::filesystem::remove(folder / name);
    }
    EXPECT_EQ(asText(read("file.bin.part")), "mine");
    std::filesystem::remove(part);

    // Of a file that nothing is known of before its end.
    script = [&](const SeenHTTPRequest&) {
        HTTPReply reply{.raw = toBytes("HTTP/1.1 200 OK\r\n\r\n"), .closes = true};
        append(*reply.raw, content);
        return reply;
    };
    keepsRecord = true;
    complete();
    const auto requests = server.requests().size();
    std::filesystem::rename(folder / "file.bin", part);
    complete();
    std::filesystem::create_hard_link(folder / "file.bin", part);  // how some file systems rename
    complete();
    EXPECT_EQ(server.requests().size(), requests);
    EXPECT_EQ(name, "file.bin");
    EXPECT_EQ(filesIn(folder), 1U);
}

TEST_F(HTTPDownloadSessionTest, aFinishedFileIsNotFetchedAgainWhileTheServerHasNoOther) {
    complete();
    const auto honest = script;
    for (const bool isConditional : {false, true}) {
        if (isConditional) script = [](const SeenHTTPRequest&) { return HTTPReply::text("", 304); };
        complete();
        EXPECT_EQ(lastHeader("if-none-match"), "\"one\"");
        EXPECT_THAT(states, ElementsAre(Kind::connecting, Kind::completed));
        EXPECT_EQ(filesIn(folder), 1U);
    }
    script = honest;
    entityTag = "\"two\"";
    complete();
    EXPECT_EQ(name, "file (1).bin");
    std::ofstream(folder / "file (1).bin", std::ios::app) << "by the user";
    complete();
    EXPECT_EQ(name, "file (2).bin");
    EXPECT_EQ(filesIn(resumeFolder), 1U);
}

TEST_F(HTTPDownloadSessionTest, whatCouldNotBeSyncedIsFetchedAgain) {
    files.syncsThatLose = 1;
    start(Kind::downloading);
    expectRetry(1s);
    EXPECT_THAT(statuses, testing::Contains(HasSubstr("Input/output error")));
    waitUntilWhole();

    std::filesystem::remove(folder / "file.bin");
    files.syncsThatLose = 1'000;
    start(Kind::downloading);
    for (const auto delay : {1s, 2s, 4s, 8s, 16s}) expectRetry(delay);
    waitFor(Kind::failed);
    EXPECT_THAT(message, HasSubstr("Input/output error"));
    files.syncsThatLose = 0;
    EXPECT_EQ(read("file.bin.part").size(), 0U);
    resumeToTheEnd();
}

TEST_F(HTTPDownloadSessionTest, aPartThatAnotherProgramChangedIsFetchedAgain) {
    const auto part = folder / "file.bin.part";
    const auto write = [&] {
        std::fstream(part, std::ios::in | std::ios::out) << "another";
        // The system's clock for files may not have moved on yet.
        std::filesystem::last_write_time(part, std::filesystem::last_write_time(part) + 1s);
    };
    const auto cut = [&] { std::filesystem::resize_file(part, 20'000); };
    for (const std::function<void()>& change : {std::function<void()>(write), std::function<void()>(cut)}) {
        startUpTo(50'000);
        change();
        simulation.advance(HTTPDownloadSession::stallLimit - 1s);
        expectRetry(1s);  // and goes on
        expectRetry(2s);
        EXPECT_THAT(statuses, testing::Contains(HasSubstr("file.bin.part was changed by another program")));
        waitUntilWhole();
        std::filesystem::remove(folder / "file.bin");

        startUpTo(50'000);
        simulation.finish(session->stop());
        change();
        complete();
        EXPECT_EQ(lastHeader("range"), "");
        std::filesystem::remove(folder / "file.bin");
    }
}

TEST_F(HTTPDownloadSessionTest, theEndOfARangeIsTheEndOfTheFileOnlyWhenTheServerSaysSo) {
    const auto rangeFrom = [&](std::size_t first, std::size_t length) {
        HTTPReply reply = HTTPReply::text(asText(ByteView(content).subspan(first, length)), 206);
        reply.headers = {{"ETag", entityTag},
                         {"Content-Range", "bytes " + std::to_string(first) + "-" +
                                               std::to_string(first + reply.body.size() - 1) + "/*"}};
        return reply;
    };
    script = [&](const SeenHTTPRequest&) { return rangeFrom(0, 100); };
    start(Kind::failed);
    EXPECT_THAT(message, HasSubstr("nothing that goes on"));

    script = [&](const SeenHTTPRequest& seen) {
        const std::string range = seen.header("range");
        const std::size_t first = range.empty() ? 0 : std::stoul(range.substr(6));
        if (first < content.size()) return rangeFrom(first, std::min<std::size_t>(30'000, content.size() - first));
        HTTPReply reply = HTTPReply::text("", 416);
        reply.headers = {{"Content-Range", "bytes */100000"}};
        return reply;
    };
    complete();
    EXPECT_EQ(lastHeader("range"), "bytes=100000-");
    EXPECT_EQ(name, "file.bin");
}

TEST_F(HTTPDownloadSessionTest, twoSessionsNeverWriteOneFile) {
    startUpTo(10);
    auto second = make(session->url());
    simulation.finish(second->start());
    waitFor(Kind::failed);
    EXPECT_THAT(message, HasSubstr("Failed to save file: "));
    simulation.finish(second->stop());
    EXPECT_EQ(read("file.bin.part").size(), 10U);
}

TEST_F(HTTPDownloadSessionTest, whatIsWrongForGoodFailsAtOnceWithAClearText) {
    script = [&](const SeenHTTPRequest& seen) {
        return seen.target == "/loop" ? HTTPReply::redirect("/loop")
                                      : HTTPReply::text("", std::stoi(seen.target.substr(1)));
    };
    const std::pair<std::string, const char*> wrong[] = {
        {"/404", "HTTP 404"},
        {"/500", "HTTP 500"},
        {"/204", "HTTP 204"},
        {"/416", "HTTP 416"},
        {"/loop", "Too many redirects"},
        {"https" + server.url("/a.bin").substr(4), "No secure connection"},
        {"http://127.0.0.1:1/a.bin", "The host cannot be reached"},
        {"http://" + std::string(64, 'a') + ".invalid/", "The host was not found"},
        {"/ nonsense\n", "Not a valid HTTP request"}};
    for (const auto& [target, text] : wrong) {
        start(Kind::failed, target);
        EXPECT_THAT(message, StartsWith(text));
        EXPECT_THAT(statuses.back(), testing::EndsWith(message));
        EXPECT_EQ(filesIn(folder), 0U);
    }
}

TEST_F(HTTPDownloadSessionTest, aFullDiskOrAMissingFolderFailsAndThePartIsKept) {
    startUpTo(10'000);
    simulation.finish(session->stop());
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    ::getrlimit(RLIMIT_FSIZE, &before);
    const rlimit tight{60'000, before.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &tight);
    start(Kind::failed);
    ::setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_THAT(message, HasSubstr("File too large"));
    EXPECT_EQ(read("file.bin.part").size(), 60'000U);
    resumeToTheEnd();
    EXPECT_EQ(lastHeader("range"), "bytes=60000-");

    std::filesystem::remove_all(folder);
    start(Kind::failed);
    EXPECT_THAT(message, HasSubstr("No such file or directory"));

    std::filesystem::create_directory(folder);
    std::filesystem::remove_all(resumeFolder);
    replaceWholeFile(resumeFolder, {});
    start(Kind::failed);
    EXPECT_EQ(filesIn(folder), 0U) << "a part without a record is nobody's";
    std::filesystem::remove(resumeFolder);
}

TEST_F(HTTPDownloadSessionTest, aLimitPacesTheDownloadAndAnUnknownSizeHasNoFraction) {
    script = [&](const SeenHTTPRequest&) {
        HTTPReply reply{.raw = toBytes("HTTP/1.1 200 OK\r\n\r\n"), .closes = true};
        append(*reply.raw, content);
        return reply;
    };
    limit = 10'000;
    const auto begun = simulation.now();
    start(Kind::downloading);
    EXPECT_EQ(fraction, 0);
    for (int step = 0; step < 200 && states.back() == Kind::downloading; ++step) {
        simulation.advance(250ms);
        simulation.runUntil([turns = 0]() mutable { return ++turns > 1; });  // what the client's thread brings
    }
    EXPECT_EQ(read("file.bin"), content);
    EXPECT_GE(simulation.now() - begun, 9750ms);
    EXPECT_GT(rate, 1'000);
    EXPECT_LT(rate, 12'600);
}

}  // namespace
}  // namespace skein
