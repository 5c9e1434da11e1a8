#include "downloads/MemoryMonitor.h"
#include "tests/support/Simulation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST(MemoryMonitorTest, asksForReliefAboveTheLimitAndSleepsWhileNoSessionRuns) {
    Simulation simulation;
    std::int64_t bytes = 500 * MemoryMonitor::bytesInMB;
    std::vector<std::string> calls;
    const auto note = [&](const std::string& footprint) { calls.push_back(footprint); };
    const auto measure = [&] { return bytes; };
    MemoryMonitor monitor(Strand(simulation.executor()), simulation.executor(), simulation, 500, note, measure);
    simulation.advance(1h);
    monitor.setRunningSessions(2);
    simulation.advance(1min);
    EXPECT_THAT(calls, ElementsAre());
    bytes += 600'000;
    simulation.advance(29s);
    EXPECT_THAT(calls, ElementsAre("501MB"));
    simulation.advance(10s);
    EXPECT_THAT(calls, ElementsAre("501MB", "501MB"));
    monitor.setRunningSessions(0);
    simulation.advance(5s);
    EXPECT_EQ(simulation.sleepers(), 0U);
    simulation.finish(monitor.stop());
}

TEST(MemoryMonitorTest, measuresThisProcess) {
    const std::int64_t before = residentMemoryBytes();
    const std::vector<char> block(64'000'000, 'x');
    // The thread sanitizer keeps several bytes for each.
    EXPECT_THAT(residentMemoryBytes() - before, testing::AllOf(testing::Gt(50'000'000), testing::Lt(1'000'000'000)));
}

}  // namespace
}  // namespace skein
