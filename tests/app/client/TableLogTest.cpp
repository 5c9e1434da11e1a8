#include "app/client/TableLog.h"
#include "tests/support/Simulation.h"

#include <boost/json/parse.hpp>
#include <gtest/gtest.h>

#include <sstream>

namespace skein {
namespace {

using namespace std::chrono_literals;

TEST(TableLog, printsTheTableOnceAChangeAndAtMostEveryFiveSeconds) {
    Simulation simulation;
    std::ostringstream out;
    TableLog log(asio::make_strand(simulation.executor()), simulation.executor(), simulation, out,
                 [](const std::exception_ptr&) {});
    const auto take = [&](const char* message) {
        simulation.finish(log.take(boost::json::parse(message).as_object()));
        simulation.settle();
    };
    const auto printed = [&] {
        const std::string text = out.str();
        std::size_t tables = 0;
        for (std::size_t at = 0; (at = text.find("NAME", at)) != std::string::npos; ++at) ++tables;
        return tables;
    };
    simulation.advance(60s);
    EXPECT_EQ(printed(), 0U);
    take(R"({"type":"list","tasks":[{"infoHash":"a","name":"film","totalSize":1,"progress":0,"status":"paused",
             "downloadSpeed":0,"uploadSpeed":0,"peerCount":0}]})");
    EXPECT_EQ(printed(), 1U);
    for (int i = 0; i < 40; ++i) {
        take(R"({"type":"changed","task":{"infoHash":"a","status":"seeding"}})");
        simulation.advance(100ms);
    }
    EXPECT_EQ(printed(), 1U);
    simulation.advance(60s);
    EXPECT_EQ(printed(), 2U);
    take(R"({"type":"chat"})");
    simulation.advance(60s);
    EXPECT_EQ(printed(), 2U);
    EXPECT_NE(out.str().find("film"), std::string::npos);
    EXPECT_NE(out.str().rfind("seeding"), std::string::npos);
    EXPECT_EQ(out.str().find('\x1B'), std::string::npos);
    simulation.finish(log.stop());
}

}  // namespace
}  // namespace skein
