#include "downloads/CreditFigures.h"
#include "tests/support/RecordingLogger.h"
#include "tests/support/Simulation.h"
#include "tests/support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <optional>

namespace skein {
namespace {

class CreditFiguresTest : public testing::Test {
protected:
    CreditFiguresTest() { open("alice"); }

    /// As the program does when it starts with that user.
    void open(const std::string& user) {
        if (figures) simulation.finish(figures->save());
        figures.emplace(simulation, ActorSettings(settings, simulation.executor()), log);
        simulation.finish(figures->load());
        figures->beginUser(user);
    }
    void confirm(const std::string& infoHash, double earned, double spent) {
        figures->applyConfirmed({infoHash, "seeding", earned, spent});
    }

    Simulation simulation;
    TemporaryFolder folder;
    RecordingLogger log;
    SettingsStore settings{folder.path() / "settings.db", log};
    std::optional<CreditFigures> figures;
};

TEST_F(CreditFiguresTest, countsOnlyWhatIsNewTodayAcrossRestartsAndMidnight) {
    UserBalanceResponse balance{true, {{"a", "seeding", 10, 4}}, 20, 20, -1};
    figures->applyBalance(balance);
    EXPECT_EQ(figures->displayedWalletBalance(), 19);
    confirm("a", 12, 4.5);
    confirm("b", 1, 0);
    EXPECT_EQ(figures->todayEarned(), 3) << "what the account held before is of other days";
    EXPECT_EQ(figures->todaySpent(), 0.5);

    open("alice");
    EXPECT_EQ(figures->todayEarned(), 3);
    confirm("a", 13, 4.5);
    EXPECT_EQ(figures->todayEarned(), 3) << "no balance was heard of: the first word on a torrent may be old news";
    confirm("a", 14, 4.5);
    EXPECT_EQ(figures->todayEarned(), 4);

    simulation.advance(std::chrono::hours(24));
    figures->rollOver();
    EXPECT_EQ(figures->todayEarned(), 0);
    confirm("a", 14.5, 5);
    EXPECT_EQ(figures->todayEarned(), 0.5);
    EXPECT_EQ(figures->todaySpent(), 0.5);

    open("bob");
    EXPECT_EQ(figures->todayEarned(), 0) << "alice's day is not bob's";
}

TEST_F(CreditFiguresTest, estimatesByTheRatesInForceAMebibyte) {
    constexpr std::int64_t mebibyte = 1 << 20;
    EXPECT_DOUBLE_EQ(figures->costOf(1000 * mebibyte, 1000 * mebibyte), 1);
    EXPECT_DOUBLE_EQ(figures->shareFor(1000 * mebibyte), 0.5);
    figures->applyRates({0.002, 0.25, std::nullopt});
    figures->applyRates({0.004, 0.25, 0.001});
    figures->applyRates({0.004, 0.25, std::nullopt});
    EXPECT_DOUBLE_EQ(figures->costOf(mebibyte, mebibyte), 0.005) << "a rate that is not sent stays";
    EXPECT_DOUBLE_EQ(figures->shareFor(mebibyte), 0.001);
}

}  // namespace
}  // namespace skein
