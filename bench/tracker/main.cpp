// A tracker for loopback benchmarks and demonstrations: HTTP and UDP, in memory, for trusted clients only.

#include "tests/support/LoopbackTracker.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string_view>

namespace {

constexpr const char* usage =
    "usage: skein_tracker [--address ADDRESS] [--http PORT] [--udp PORT] [--interval SECONDS] [--max-peers COUNT]\n"
    "Tracks torrents on ADDRESS (127.0.0.1); port 0, the default, lets the system choose. Ends on SIGINT or SIGTERM.\n";

template <class Number>
bool parse(std::string_view text, Number& number) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

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
            isUnderstood = parse(value, options.httpPort);
        } else if (name == "--udp") {
            isUnderstood = parse(value, options.udpPort);
        } else if (name == "--interval") {
            isUnderstood = parse(value, options.interval);
        } else if (name == "--max-peers") {
            isUnderstood = parse(value, options.maxPeers);
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
    boost::asio::signal_set signals(context, SIGINT, SIGTERM);
    signals.async_wait([&](const boost::system::error_code&, int) {
        boost::asio::co_spawn(context, tracker.stop(), boost::asio::detached);
    });
    context.run();
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "skein_tracker: %s\n", error.what());
    return 1;
}
