#include "app/client/TableLog.h"
#include "tests/support/Simulation.h"

#include <boost/json/parse.hpp>
#include <gmock/gmock.h>

#include <algorithm>
#include <sstream>

namespace skein {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

TEST(TableLog, printsTheTableOnceAChangeAndAtMostEveryFiveSeconds) {
    Simulation simulation;
    std::ostringstream out;
    TableLog log(asio::make_strand(simulation.executor()), simulation.executor(), simulation, out,
                 [](const std::exception_ptr&) {});
    const auto take = [&](const char* message) {
        simulation.finish(log.take(boost::json::parse(message).as_object()));
        simulation.settle();
    };
    const auto printed = [&] { return std::ranges::count(out.str(), '#'); };  // of the header
    simulation.advance(60s);
    EXPECT_EQ(printed(), 0);
    take(
        R"({"type":"list","tasks":[{"infoHash":"a","number":1,"name":"film","totalSize":1,"progress":0,"status":"paused",
             "downloadSpeed":0,"uploadSpeed":0,"peerCount":0}]})");
    EXPECT_EQ(printed(), 1);
    for (int i = 0; i < 40; ++i) {
        take(R"({"type":"changed","task":{"infoHash":"a","status":"seeding"}})");
        simulation.advance(100ms);
    }
    EXPECT_EQ(printed(), 1);
    simulation.advance(60s);
    EXPECT_EQ(printed(), 2);
    take(R"({"type":"chat"})");
    simulation.advance(60s);
    EXPECT_EQ(printed(), 2);
    EXPECT_THAT(out.str(), testing::AllOf(HasSubstr("film"), HasSubstr("Seeding"), testing::Not(HasSubstr("\x1B"))));
    simulation.finish(log.stop());
}

}  // namespace
}  // namespace skein
