#include "tests/app/ProgramTest.h"

#include "Core/formats/TorrentParser.h"

#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

namespace skein {
namespace {

namespace fs = std::filesystem;
namespace json = boost::json;
using testing::HasSubstr;
using testing::StartsWith;

std::ptrdiff_t filesIn(const TemporaryFolder& folder) {
    return std::distance(fs::directory_iterator(folder.path()), fs::directory_iterator());
}

TEST_F(ProgramTest, tellsItsVersionAndExplainsEachCommand) {
    EXPECT_EQ(skein({"--version"}).out, "skein " SKEIN_VERSION "\n");
    EXPECT_THAT(skein({"create", "--help"}).out, HasSubstr("Example:\n  skein create"));
}

TEST_F(ProgramTest, aWrongCommandLineEndsWith2AndOneLine) {
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"nonsense"},
                                               {"show"},
                                               {"show", "--nonsense", "x"},
                                               {"create", "x"},
                                               {"create", "x", "-o", "y", "--piece-length", "20000"},
                                               {"create", "x", "-o", "y", "--tracker", "ftp://x"}}) {
        const auto result = skein(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, testing::MatchesRegex("skein: command line: [^\n]*\n"));
    }
}

TEST_F(ProgramTest, createMakesATorrentThatShowPrints) {
    write("music/a/one", std::string(40'000, '1'));
    write("music/two", "2");
    const std::string out = path("out.torrent");
    const auto created = skein({"create", path("music"), "-o", out, "--tracker", "udp://a.example:1", "--tracker",
                                "http://b.example/x", "--piece-length", "32K", "--private", "--comment", "why"});
    ASSERT_EQ(created.status, 0) << created.err;
    const TorrentMetaInfo torrent = TorrentParser::parse(readWholeFile(out, 100'000));
    EXPECT_THAT(created.out, HasSubstr(torrent.infoHashHex));
    EXPECT_EQ(filesIn(folder), 2);

    const json::value shown = json::parse(skein({"show", "--json", out}).out);
    const auto date = torrent.creationDate->time_since_epoch().count();
    const json::value expected{
        {"infoHash", torrent.infoHashHex},
        {"name", "music"},
        {"totalSize", 40'001},
        {"pieceLength", 32'768},
        {"pieceCount", 2},
        {"isPrivate", true},
        {"files", json::array{{{"path", "music/a/one"}, {"size", 40'000}, {"offset", 0}},
                              {{"path", "music/two"}, {"size", 1}, {"offset", 40'000}}}},
        {"trackers", json::array{json::array{"udp://a.example:1"}, json::array{"http://b.example/x"}}},
        {"comment", "why"},
        {"createdBy", "skein " SKEIN_VERSION},
        {"creationDate", date},
    };
    EXPECT_EQ(shown, expected) << json::serialize(shown);
    EXPECT_THAT(skein({"show", out}).out, HasSubstr("     1 B  music/two\n"));
}

TEST_F(ProgramTest, showPrintsSeveralSourcesAndFailsForThoseItCannotRead) {
    write("broken.torrent", "d4:infoi1ee");
    const std::string magnet = "magnet:?xt=urn:btih:aabbccddee11223344556677889900aabbccddee&dn=%1B%5B2Jx&tr=t";
    const auto result = skein({"show", path("none.torrent"), path("broken.torrent"), magnet, "magnet:?dn=x"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.out, HasSubstr("?[2Jx\n"));
    EXPECT_EQ(result.err, "skein: show: " + path("none.torrent") + ": No such file or directory\n" +
                              "skein: show: " + path("broken.torrent") + ": Missing required field: name\n" +
                              "skein: show: magnet:?dn=x: Magnet link missing info hash (xt parameter)\n");
    EXPECT_EQ(json::parse(skein({"show", "--json", magnet}).out).at("name"), "\x1B[2Jx");
}

TEST_F(ProgramTest, createRefusesWhatWouldFailOrDestroySomething) {
    for (const char* file : {"film", "other"}) write(file, "precious");
    fs::create_directories(path("folder"));
    for (const char* out : {"film", "other", "folder", "none/x.torrent"}) {
        const auto result = skein({"create", path("film"), "-o", path(out)});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, StartsWith("skein: create: " + path(out) + ": "));
    }
    EXPECT_EQ(skein({"create", path("folder"), "-o", path("x.torrent")}).err,
              "skein: create: Nothing in it to share\n");
    for (const char* file : {"film", "other"}) EXPECT_EQ(asText(readWholeFile(path(file), 100)), "precious");
}

TEST_F(ProgramTest, aSignalStopsCreateWithoutATrace) {
    write("huge", "");
    fs::resize_file(path("huge"), std::uintmax_t{1} << 43U);
    for (const auto& [signal, status] : {std::pair(SIGINT, 130), std::pair(SIGTERM, 143)}) {
        ProgramRun run(line({"create", path("huge"), "-o", path("huge.torrent"), "--piece-length", "64M"}));
        // The first progress line shows that the hashing goes on.
        waitUntil([&] { return !run.err().empty(); });
        run.signal(signal);
        EXPECT_EQ(run.finish().status, status);
        EXPECT_EQ(filesIn(folder), 1);
    }
}

}  // namespace
}  // namespace skein
