#include "app/chat/ChatAction.h"
#include "app/client/AccountCommand.h"

#include <CLI/CLI.hpp>

namespace skein {

namespace {

class ChatCommand final : public AccountCommand {
public:
    ChatCommand() : AccountCommand({"chat", "Talk with other users", "skein chat send bob 'Have you got it?'"}) {
        addTellActions(actions_);
        addTalkActions(actions_);
        addHistoryAction(actions_);
        addMediaAction(actions_);
        addContactActions(actions_);
        addListenAction(actions_);
    }

    void declare(CLI::App& options) override {
        for (const auto& action : actions_) action->addTo(options);
        options.require_subcommand(1);
    }

protected:
    int talk(APIPort& port) override {
        for (const auto& action : actions_)
            if (action->isChosen()) return action->run(port);
        return exitStatus::wrongCommandLine;  // require_subcommand leaves no such way
    }

private:
    ChatActions actions_;
};

}  // namespace

std::unique_ptr<Command> makeChatCommand() { return std::make_unique<ChatCommand>(); }

}  // namespace skein
