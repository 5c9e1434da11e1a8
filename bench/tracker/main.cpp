// A tracker for loopback benchmarks and demonstrations: HTTP and UDP, in memory, for trusted clients only.

#include "bench/LoopbackProgram.h"
#include "tests/support/LoopbackTracker.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>

#include <cstdio>
#include <exception>
#include <optional>
#include <string_view>

namespace {

constexpr const char* usage =
    "usage: skein_tracker [--address ADDRESS] [--http PORT] [--udp PORT] [--interval SECONDS] [--max-peers COUNT]\n"
    "Tracks torrents on ADDRESS (127.0.0.1); port 0, the default, lets the system choose. Ends on SIGINT or SIGTERM.\n";

std::optional<skein::LoopbackTracker::Options> optionsOf(int count, char** arguments) {
    skein::LoopbackTracker::Options options;
    for (int i = 1; i < count; i += 2) {
        if (i + 1 == count) return std::nullopt;
        const std::string_view name = arguments[i];
        const std::string_view value = arguments[i + 1];
        bool isUnderstood = true;
        if (name == "--address") {
            options.address = value;
        } else if (name == "--http") {
            isUnderstood = skein::parseNumber(value, options.httpPort);
        } else if (name == "--udp") {
            isUnderstood = skein::parseNumber(value, options.udpPort);
        } else if (name == "--interval") {
            isUnderstood = skein::parseNumber(value, options.interval);
        } else if (name == "--max-peers") {
            isUnderstood = skein::parseNumber(value, options.maxPeers);
        } else {
            isUnderstood = false;
        }
        if (!isUnderstood) return std::nullopt;
    }
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
    skein::LoopbackTracker tracker(context.get_executor(), *options);
    std::printf("%s\n%s\n", tracker.httpURL().c_str(), tracker.udpURL().c_str());
    std::fflush(stdout);
    skein::runUntilSignalled(context, [&] { boost::asio::co_spawn(context, tracker.stop(), boost::asio::detached); });
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "skein_tracker: %s\n", error.what());
    return 1;
}
