#include "app/ProgressLine.h"
#include "tests/support/Simulation.h"

#include <gtest/gtest.h>

#include <sstream>

namespace skein {
namespace {

using namespace std::chrono_literals;

TEST(ProgressLine, writesAPlainLineEveryFiveSecondsToALog) {
    Simulation simulation;
    std::ostringstream out;
    ProgressLine line(simulation, out, false);
    for (int i = 1; i <= 110; ++i) {
        simulation.advance(100ms);
        line.show(std::to_string(i));
    }
    EXPECT_EQ(out.str(), "1\n51\n101\n");
}

}  // namespace
}  // namespace skein
