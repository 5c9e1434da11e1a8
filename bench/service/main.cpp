// A resource service for loopback trials and demonstrations: in memory, for trusted clients only.

#include "bench/LoopbackProgram.h"
#include "tests/support/SkeinTestService.h"
#include "tests/support/TestChatRoom.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>

#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

namespace {

struct Options {
    skein::SkeinTestService::Options service;
    std::optional<std::uint16_t> chatPort;
};

constexpr const char* usage =
    "usage: skein_service [--bind ADDRESS] [--port PORT] [--chat PORT] [--credit AMOUNT] --user NAME:CREDENTIAL...\n"
    "Serves /api/resource, /api/wallet and relays on ADDRESS (127.0.0.1), and with --chat a chat room on 127.0.0.1.\n"
    "Port 0, the default, lets the system choose. Each user begins with AMOUNT (10) in the wallet. GET /ledger shows "
    "all\n"
    "accounts. POST /faults with {\"fault\": \"serverError\", \"path\": \"/api/resource/heartbeat\", \"times\": 2} "
    "has\n"
    "the next two heartbeats fail; without \"times\" all from now on. Faults: none serverError silent hangUp "
    "loseAnswer\n"
    "duplicateAnswer garbage html oversize. Ends on SIGINT or SIGTERM.\n";

std::optional<Options> optionsOf(int count, char** arguments) {
    Options given;
    skein::SkeinTestService::Options& options = given.service;
    options.users.clear();
    for (int i = 1; i < count; i += 2) {
        if (i + 1 == count) return std::nullopt;
        const std::string_view name = arguments[i];
        const std::string value = arguments[i + 1];
        bool isUnderstood = false;
        if (name == "--bind") {
            options.address = value;
            isUnderstood = true;
        } else if (name == "--port") {
            isUnderstood = skein::parseNumber(value, options.port);
        } else if (name == "--chat") {
            isUnderstood = skein::parseNumber(value, given.chatPort.emplace());
        } else if (name == "--credit") {
            isUnderstood = skein::parseNumber(value, options.startCredit);
        } else if (name == "--user") {
            const std::size_t colon = value.find(':');
            isUnderstood = colon != std::string::npos && colon > 0 && colon + 1 < value.size();
            if (isUnderstood) options.users[value.substr(0, colon)] = value.substr(colon + 1);
        }
        if (!isUnderstood) return std::nullopt;
    }
    if (options.users.empty()) return std::nullopt;
    return given;
}

}  // namespace

int main(int count, char** arguments) try {
    const auto options = optionsOf(count, arguments);
    if (!options) {
        std::fputs(usage, stderr);
        return 2;
    }
    boost::asio::io_context context(1);
    skein::SkeinTestService service(context.get_executor(), options->service);
    std::printf("listening on %s/\n", service.url().c_str());
    skein::RealClock clock;
    std::optional<skein::TestChatRoom> room;
    if (options->chatPort) {
        room.emplace(context.get_executor(), clock,
                     skein::TestChatRoom::Options{*options->chatPort, options->service.users});
        std::printf("chat on 127.0.0.1:%u\n", static_cast<unsigned>(room->port()));
    }
    std::fflush(stdout);
    skein::runUntilSignalled(context, [&] {
        boost::asio::co_spawn(context, service.stop(), boost::asio::detached);
        if (room) boost::asio::co_spawn(context, room->stop(), boost::asio::detached);
    });
    return 0;
} catch (const std::exception& error) {
    std::fprintf(stderr, "skein_service: %s\n", error.what());
    return 1;
}
