#include "public/common/Bytes.h"
#include "tests/app/ProgramTest.h"

namespace skein {
namespace {

using testing::AllOf, testing::HasSubstr, testing::Not, testing::StartsWith;

class ConfigProgramTest : public ProgramTest {
protected:
    std::string log() const {
        return std::string(asText(readWholeFile(home.path() / "logs" / "skein.log", 1U << 20U)));
    }
};

TEST_F(ConfigProgramTest, refusesWhatIsNoSettingOrNoValueOfIt) {
    const auto unknown = skein({"config", "set", "uploadmode", "free"});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_THAT(unknown.err, StartsWith("skein: config: unknown setting 'uploadmode' - known are customDownload"));
    EXPECT_EQ(skein({"config", "unset", "account.credential"}).status, 2) << "which is for login and logout to change";
    const std::vector<std::pair<std::string, std::string>> wrong{{"uploadMode", "free, disabled"},
                                                                 {"skein.downloadLimit", "fast"},
                                                                 {"memoryLimitMB", "-1"},
                                                                 {"customDownloadDirectory", "films"},
                                                                 {"skein.manualLANPeers", "10.0.0.1:1,10.0.0.2"},
                                                                 {"torrentCacheSites", "https://cache.example/"},
                                                                 {"fallbackTrackers", "udp://tracker.example"},
                                                                 {"skein.lanPortScanEnabled", "maybe"},
                                                                 {"skein.logLevel", "Debug"}};
    for (const auto& [key, value] : wrong) {
        const auto refused = skein({"config", "set", "--", key, value});
        EXPECT_EQ(refused.status, 2) << key;
        EXPECT_THAT(refused.err, StartsWith("skein: config: " + key + " cannot be '" + value + "' - allowed is: "));
    }
    EXPECT_EQ(skein({"config", "set", "fallbackTrackers", ""}).status, 0) << "none";
    EXPECT_EQ(skein({"config", "unset", "uploadMode"}).status, 0);
}

TEST_F(ConfigProgramTest, listExplainsEverySettingAndShowsNoSecret) {
    ASSERT_EQ(skein({"config", "set", "fallbackTrackers", "http://t.example/announce?passkey=secret"}).status, 0);
    const std::string list = skein({"config", "list"}).out;
    EXPECT_THAT(list, AllOf(HasSubstr("fallbackTrackers = http://t.example/announce?passkey=…\n"),
                            HasSubstr("uploadMode is not set (default: paid (Upload and earn credit))\n"),
                            HasSubstr("Allowed: paid, free or disabled; acts at once.\n"), Not(HasSubstr("secret"))));
    EXPECT_THAT(skein({"config", "get", "fallbackTrackers"}).out, HasSubstr("passkey=secret"));
}

TEST_F(ConfigProgramTest, actsInARunningDaemonAtOnceOrSaysThatItDoesNot) {
    const auto daemon = startDaemon();
    EXPECT_THAT(skein({"config", "set", "dhtBootstrapNodes", "127.0.0.1:1"}).err,
                HasSubstr("dhtBootstrapNodes acts when the daemon is started again\n"));
    EXPECT_EQ(skein({"config", "set", "skein.logLevel", "debug"}).err, "");
    waitUntil([&] { return log().find("[Settings] skein.logLevel is read again") != std::string::npos; });
    skein({"list"});
    waitUntil([&] { return log().find(" D [API] ") != std::string::npos; });
    skein({"stop"});
    EXPECT_EQ(daemon->finish().status, 0);
}

}  // namespace
}  // namespace skein
