#include "app/Interrupt.h"
#include "app/client/AccountCommand.h"
#include "app/client/ChatLines.h"
#include "app/client/ChatListener.h"
#include "app/client/DaemonClient.h"
#include "app/client/LocalDesk.h"
#include "app/client/WatchRun.h"
#include "public/common/Printable.h"

#include <CLI/CLI.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>

#include <exception>
#include <iostream>
#include <semaphore>
#include <stop_token>
#include <string>
#include <utility>

namespace skein {

namespace {

namespace json = boost::json;

void followDaemon(DaemonClient& daemon, const Interrupt& interrupt, bool isJSON) {
    WatchRun run(daemon, interrupt,
                 [&](const Strand&, Clock&, const WatchOutput::End&) -> std::unique_ptr<WatchOutput> {
                     return std::make_unique<ChatLines>(daemon.pools().disk(), std::cout, isJSON);
                 });
    run.run();
}

/// Without a daemon we are the client.
void followAlone(LocalDesk& desk, const Interrupt& interrupt, bool isJSON) {
    desk.get("api/v1/chat/friends");  // says what is missing, if something is
    ChatLines lines(desk.host().pools().disk(), std::cout, isJSON);
    std::counting_semaphore<> stop(0);
    std::exception_ptr failure;
    const Strand strand = asio::make_strand(desk.host().pools().io());
    ChatListener listener(strand, desk.center(), lines, [&](std::exception_ptr why) {
        failure = std::move(why);
        stop.release();
    });
    const std::stop_callback onInterrupt(interrupt.token(), [&stop] { stop.release(); });
    stop.acquire();
    asio::co_spawn(strand, listener.stop(), asio::use_future).get();
    if (failure && interrupt.exitStatus() == 0) std::rethrow_exception(failure);
}

class ChatCommand final : public AccountCommand {
public:
    ChatCommand() : AccountCommand({"chat", "Talk with other users", "skein chat send bob 'Have you got it?'"}) {}

    void declare(CLI::App& options) override {
        send_ = options.add_subcommand("send", "Tell a user something");
        send_->add_option("USER", whom_, "Who is told")->required();
        send_->add_option("TEXT", text_, "What")->required();
        group_ = options.add_subcommand("group", "Tell a group something; it is joined when needed");
        group_->add_option("GROUP", whom_, "Which group is told")->required();
        group_->add_option("TEXT", text_, "What")->required();
        history_ = options.add_subcommand("history", "What was said between a user and you; offline too");
        history_->add_option("USER", whom_, "With whom")->required();
        history_->add_flag("--group", isGroup_, "USER is a group");
        history_->add_option("--limit", limit_, "The newest so many")->check(CLI::Range(1, 200))->capture_default_str();
        friends_ = options.add_subcommand("friends", "The friend list");
        listen_ = options.add_subcommand("listen", "Print messages as they come, until interrupted");
        for (CLI::App* const one : {history_, friends_, listen_}) one->add_flag("--json", isJSON_, "As JSON");
        options.require_subcommand(1);
    }

protected:
    int talk(APIPort& port) override {
        if (*send_) port.post("api/v1/chat/send", json::object{{"to", whom_}, {"text", text_}});
        if (*group_) port.post("api/v1/chat/group", json::object{{"group", whom_}, {"text", text_}});
        if (*history_) printHistory(port);
        if (*friends_) printFriends(port);
        return *listen_ ? listen(port) : exitStatus::done;
    }

private:
    void printHistory(APIPort& port) const {
        const json::value history = port.get(std::string("api/v1/chat/history?") + (isGroup_ ? "group=" : "user=") +
                                             percentEncoded(whom_) + "&limit=" + std::to_string(limit_));
        if (isJSON_) {
            std::cout << json::serialize(history) << '\n';
            return;
        }
        for (const json::value& message : history.as_array()) std::cout << chatLine(message.as_object()) << '\n';
    }

    void printFriends(APIPort& port) const {
        const json::value friends = port.get("api/v1/chat/friends");
        if (isJSON_) {
            std::cout << json::serialize(friends) << '\n';
            return;
        }
        for (const json::value& id : friends.as_array()) std::cout << printable(std::string(id.as_string())) << '\n';
    }

    int listen(APIPort& port) const {
        if (auto* const daemon = dynamic_cast<DaemonClient*>(&port)) {
            const Interrupt interrupt(daemon->pools().io());
            followDaemon(*daemon, interrupt, isJSON_);
            return interrupt.exitStatus();
        }
        auto& desk = dynamic_cast<LocalDesk&>(port);
        const Interrupt interrupt(desk.host().pools().io());
        followAlone(desk, interrupt, isJSON_);
        return interrupt.exitStatus();
    }

    CLI::App* send_ = nullptr;
    CLI::App* group_ = nullptr;
    CLI::App* history_ = nullptr;
    CLI::App* friends_ = nullptr;
    CLI::App* listen_ = nullptr;
    std::string whom_;
    std::string text_;
    bool isGroup_ = false;
    int limit_ = 50;
    bool isJSON_ = false;
};

}  // namespace

std::unique_ptr<Command> makeChatCommand() { return std::make_unique<ChatCommand>(); }

}  // namespace skein
