// A DHT for loopback benchmarks and demonstrations: storing nodes in memory, for trusted clients only.

#include "bench/LoopbackProgram.h"
#include "tests/support/LoopbackDHT.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>

#include <cstdio>
#include <exception>
#include <optional>
#include <string_view>

namespace {

constexpr const char* usage =
    "usage: skein_dht [--address ADDRESS] [--nodes COUNT] [--port PORT]\n"
    "Runs COUNT (30) nodes on ADDRESS (127.0.0.1), at PORT and the ports after it; port 0, the default, lets the\n"
    "system choose. Prints the first node's address. Ends on SIGINT or SIGTERM.\n";

std::optional<skein::LoopbackDHT::Options> optionsOf(int count, char** arguments) {
    skein::LoopbackDHT::Options options;
    for (int i = 1; i < count; i += 2) {
        if (i + 1 == count) return std::nullopt;
        const std::string_view name = arguments[i];
        const std::string_view value = arguments[i + 1];
        bool isUnderstood = true;
        if (name == "--address") {
            options.address = value;
            isUnderstood = skein::IPAddress::parse(value).has_value();
        } else if (name == "--nodes") {
            isUnderstood = skein::parseNumber(value, options.nodes) && options.nodes > 0;
        } else if (name == "--port") {
            isUnderstood = skein::parseNumber(value, options.port);
        } else {
            isUnderstood = false;
        }
        if (!isUnderstood) return std::nullopt;
    }
    if (options.port + options.nodes > 65'536) return std::nullopt;
    return options;
}

}  // namespace

int main(int count, char** arguments) try {
    const auto options = optionsOf(count, arguments);
    if (!options) {
        std::fputs(usage, stderr);
        return 2;
    }
    boost::asio::io_context context(1);
    skein::LoopbackDHT nodes(context.get_executor(), *options);
    std::printf("%s\n", nodes.bootstrapNode().description().c_str());
    std::fflush(stdout);
    skein::runUntilSignalled(context, [&] { boost::asio::co_spawn(context, nodes.stop(), boost::asio::detached); });
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "skein_dht: %s\n", error.what());
    return 1;
}
