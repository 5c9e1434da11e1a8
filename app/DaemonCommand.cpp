#include "app/Command.h"
#include "app/EngineHost.h"
#include "app/Interrupt.h"
#include "app/ManagerHost.h"
#include "app/TransferOptions.h"
#include "app/api/AccountRoutes.h"
#include "app/api/ChatEvents.h"
#include "app/api/ChatRoutes.h"
#include "app/api/DaemonFile.h"
#include "app/api/LocalAPI.h"
#include "public/common/ErrorText.h"

#include <CLI/CLI.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/system/system_error.hpp>

#include <iostream>
#include <semaphore>
#include <stop_token>
#include <unistd.h>

namespace skein {

namespace {

constexpr std::size_t tokenBytes = 32;

std::string checkEndpoint(const std::string& text) {
    const auto endpoint = PeerAddress::parse(text);
    // Port 0 is what parse() takes for no port at all.
    const auto colon = text.rfind(':');
    const bool letsTheSystemChoose = colon != std::string::npos && text.substr(colon + 1) == "0";
    const bool isLiteral = endpoint ? endpoint->literal().has_value() : letsTheSystemChoose;
    return isLiteral ? std::string() : "Not ADDR:PORT: " + text;
}

/// Stops the API however the command ends: whoever is connected uses the manager.
class RunningAPI {
public:
    RunningAPI(LocalAPI& api, EngineHost& host) : api_(api), host_(host) {}
    RunningAPI(const RunningAPI&) = delete;
    RunningAPI& operator=(const RunningAPI&) = delete;
    ~RunningAPI() { asio::co_spawn(host_.pools().io(), api_.stop(), asio::use_future).get(); }

private:
    LocalAPI& api_;
    EngineHost& host_;
};

class DaemonCommand final : public Command {
public:
    DaemonCommand()
        : Command({"daemon", "Run the download manager until it is stopped", "skein daemon --api 127.0.0.1:7070"}) {}

    void declare(CLI::App& options) override {
        options.add_option("--api", api_, "Where the local API listens; port 0 lets the system choose")
            ->type_name("ADDR:PORT")
            ->check(CLI::Validator(checkEndpoint, ""))
            ->capture_default_str();
        options_.declare(options);
    }

    int run(const GlobalOptions& global) override {
        EngineHost host(global.home(), LocalBinding(options_.bind));
        DaemonFile claim(host.home());
        host.listen(options_.port, options_.dhtOptions());
        const Interrupt interrupt(host.pools().io());
        ManagerHost managerHost(host, options_);
        std::counting_semaphore<> stop(0);
        LocalAPI api(managerHost.manager(), managerHost.center(), host.http(), host.clock(), host.log(),
                     [&stop] { stop.release(); });
        AccountRoutes account(managerHost.service(), host.account(), &managerHost.manager(),
                              [&managerHost] { managerHost.chat().accountChanged(); });
        account.addTo(api.router());
        ChatRoutes chat(managerHost.chat(), {.allowsLocalPeers = options_.allowsLocalPeers});
        chat.addTo(api.router());
        const ChatEvents chatEvents(managerHost.center(), managerHost.manager().strand());
        const RunningAPI running(api, host);
        serve(api, host, claim);
        const std::stop_callback onInterrupt(interrupt.token(), [&stop] { stop.release(); });
        stop.acquire();
        return interrupt.exitStatus();
    }

private:
    void serve(LocalAPI& api, EngineHost& host, DaemonFile& claim) const {
        Bytes secret(tokenBytes);
        host.random().fill(secret);
        const auto colon = api_.rfind(':');
        std::string address = api_.substr(0, colon);
        if (address.starts_with('[')) address = address.substr(1, address.size() - 2);
        DaemonAddress daemon{address, 0, ::getpid(), toHex(secret)};
        try {
            api.listen(address, static_cast<std::uint16_t>(std::stoul(api_.substr(colon + 1))), daemon.token);
        } catch (const boost::system::system_error& error) {
            throw CommandFailure("listening on " + api_, textOf(error));
        }
        daemon.port = api.port();
        const std::string url = daemon.url();
        daemon.address = DaemonAddress::reachable(address);
        claim.publish(daemon);
        std::cout << "listening on " << url << std::endl;
    }

    std::string api_ = "127.0.0.1:7070";
    TransferOptions options_;
};

}  // namespace

std::unique_ptr<Command> makeDaemonCommand() { return std::make_unique<DaemonCommand>(); }

}  // namespace skein
