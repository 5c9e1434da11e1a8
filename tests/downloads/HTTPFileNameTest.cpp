#include "downloads/HTTPDownloadSession.h"
#include "downloads/HTTPFileName.h"
#include "tests/support/OddCharacters.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using Session = HTTPDownloadSession;

TEST(HTTPFileNameTest, contentDispositionsGiveOneSafePathComponent) {
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"attachment; filename=\"report.pdf\"", "report.pdf"},
        {"attachment; filename*=UTF-8''na%C3%AFve.pdf", "naïve.pdf"},
        {"attachment; filename=\"plain.pdf\"; filename*=utf-8'en'better%3B.pdf; size=3", "better;.pdf"},
        {"attachment; filename*=KOI8-R''%C1; filename=a.pdf", "a.pdf"},
        {"attachment; FileName = report.pdf ; size=3", "report.pdf"},
        {"attachment filename=report.pdf", "report.pdf"},
        {"attachment; filename=\"a \\\"b\\\"; c.txt\"", "a _b_; c.txt"},
        {"form-data; name=\"filename=no\"; filename=\"yes\"", "yes"},
        {"attachment; filename=\"../../etc/passwd\"", "passwd"},
        {"attachment; filename=\"C:\\dir\\file.txt\"", "file.txt"},
        {"attachment; filename*=UTF-8''..%2F..%2F.bashrc", "bashrc"},
        {"attachment; filename=\"na\xEFve.pdf\"", "naïve.pdf"},
        {"attachment; filename=\"..\"", std::nullopt},
        {"attachment; filename=\"unfinished", "unfinished"},
        {"attachment; filename=", std::nullopt},
        {"inline", std::nullopt},
    };
    for (const auto& [header, name] : cases) EXPECT_EQ(Session::parseContentDisposition(header), name) << header;
    const auto longest = HTTPFileName::safe(std::string(300, 'x') + ".tar.gz");
    EXPECT_EQ(longest->size(), HTTPFileName::maxBytes);
    EXPECT_TRUE(longest->ends_with("x.tar.gz"));
    for (const std::string& odd : oddCharacters) EXPECT_EQ(HTTPFileName::safe("x" + odd + "y.txt"), "x_y.txt");
    EXPECT_EQ(HTTPFileName::safe("x\xFFy\x9Bz"), "xÿy_z") << "read as ISO 8859-1, that is a control character";
}

TEST(HTTPFileNameTest, urlsGiveTheirLastComponentOrAName) {
    SecureRandom random;
    EXPECT_EQ(Session::deriveFileName("http://host/a/na%C3%AFve%20b.pdf?x=/y#/z", random), "naïve b.pdf");
    EXPECT_EQ(Session::deriveFileName("http://host/a/%2e%2e%2fb", random), "b");
    EXPECT_EQ(Session::deriveFileName("http://host/a/", random), "a");
    for (const char* url : {"http://host", "http://host/", "http://host/%2F", "http://host/..", "no url/a"})
        EXPECT_THAT(Session::deriveFileName(url, random), testing::MatchesRegex("download_[0-9a-f]{8}")) << url;
}

TEST(HTTPFileNameTest, linksToFilesAreKnownByTheirExtension) {
    for (const char* url : {"http://h/a.PDF", "HTTPS://h/x.tar.gz?b=c.html", "http://h/dir.d/a.safetensors#x"})
        EXPECT_TRUE(Session::isDownloadableURL(url)) << url;
    for (const char* url : {"ftp://h/a.pdf", "http://h/a.html", "http://h/?a.pdf", "http://h/.zip", "http:///a.pdf",
                            "http://h.zip", "magnet:?xt=a.pdf", "/a.pdf", ""})
        EXPECT_FALSE(Session::isDownloadableURL(url)) << url;
    EXPECT_EQ(HTTPFileName::numbered("a.tar.gz", 2), "a (2).tar.gz");
    EXPECT_EQ(HTTPFileName::numbered("a", 1), "a (1)");
}

}  // namespace
}  // namespace skein
