#include "app/Interrupt.h"
#include "app/chat/ChatAction.h"
#include "app/client/ChatLines.h"
#include "app/client/ChatListener.h"
#include "app/client/DaemonClient.h"
#include "app/client/LocalDesk.h"
#include "app/client/SentMessageWatch.h"
#include "app/client/WatchRun.h"

#include <CLI/CLI.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

#include <exception>
#include <iostream>
#include <semaphore>
#include <stop_token>
#include <utility>

namespace skein {

namespace {

void followDaemon(DaemonClient& daemon, const Interrupt& interrupt, bool isJSON) {
    WatchRun run(daemon, interrupt,
                 [&](const Strand&, Clock&, const WatchOutput::End&) -> std::unique_ptr<WatchOutput> {
                     return std::make_unique<ChatLines>(daemon.pools().disk(), std::cout, isJSON);
                 });
    run.run();
}

/// Without a daemon we are the client.
void followAlone(LocalDesk& desk, const Interrupt& interrupt, bool isJSON) {
    desk.post("api/v1/chat/connect");  // says what is missing, if something is
    ChatLines lines(desk.host().pools().disk(), std::cout, isJSON);
    std::counting_semaphore<> stop(0);
    std::exception_ptr failure;
    const Strand strand = asio::make_strand(desk.host().pools().io());
    ChatListener listener(strand, desk.center(), lines, [&](std::exception_ptr why) {
        failure = std::move(why);
        stop.release();
    });
    SentMessageWatch sent(strand, desk.chat(), desk.center());
    const std::stop_callback onInterrupt(interrupt.token(), [&stop] { stop.release(); });
    stop.acquire();
    asio::co_spawn(strand, sent.stop(), asio::use_future).get();
    asio::co_spawn(strand, listener.stop(), asio::use_future).get();
    if (failure && interrupt.exitStatus() == 0) std::rethrow_exception(failure);
}

class ListenAction final : public ChatAction {
public:
    ListenAction()
        : ChatAction({"listen", "Print messages as they come and as you send them elsewhere, until interrupted",
                      "skein chat listen --json"}) {}

    int run(APIPort& port) override {
        if (auto* const daemon = dynamic_cast<DaemonClient*>(&port)) {
            const Interrupt interrupt(daemon->pools().io());
            followDaemon(*daemon, interrupt, isJSON());
            return interrupt.exitStatus();
        }
        auto& desk = dynamic_cast<LocalDesk&>(port);
        const Interrupt interrupt(desk.host().pools().io());
        followAlone(desk, interrupt, isJSON());
        return interrupt.exitStatus();
    }

protected:
    void declare(CLI::App&) override {}
};

}  // namespace

void addListenAction(ChatActions& actions) { actions.push_back(std::make_unique<ListenAction>()); }

}  // namespace skein
