#include "Core/wire/PeerIDClientParser.h"

#include <gtest/gtest.h>

namespace skein {
namespace {

std::string nameOf(std::string_view id) { return PeerIDClientParser::clientName(asBytes(id)).value_or("none"); }

TEST(PeerIDClientParser, namesClientsByTheDashFormWithTheirVersionOrByHowTheyBeginAndDoesNotGuess) {
    for (const auto& [id, name] : {std::pair("-UT3550-\x01\x02", "µTorrent 3.5.5.0"),
                                   {"-qB45B1-abcdefghijkl", "qBittorrent 4.5.B.1"},
                                   {"-TR\x01 2.-", "Transmission 2"},
                                   {"-AZ\xFF\xFF\xFF\xFF-", "Vuze"},
                                   {"M7-9-2--\x01", "Mainline"},
                                   {"exbc\x01\x02", "BitComet"}})
        EXPECT_EQ(nameOf(id), name);
    for (const char* id : {"", "-", "-UT3550", "-UT3550x", "-ut3550-", "-XX1234-", "-QM0100-", "\x01M", "exb"})
        EXPECT_EQ(nameOf(id), "none") << id;
}

TEST(PeerIDClientParser, thePrefixEndsAtTheFirstByteThatDoesNotPrint) {
    EXPECT_EQ(PeerIDClientParser::prefix(asBytes("-UT3550-a ~\x7Fz")), "-UT3550-a ~");
    EXPECT_EQ(PeerIDClientParser::prefix(asBytes("\xC2\xB5")), "");
}

}  // namespace
}  // namespace skein
