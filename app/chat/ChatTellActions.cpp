#include "app/chat/ChatAction.h"

#include <CLI/CLI.hpp>
#include <boost/json/object.hpp>

namespace skein {

namespace {

namespace json = boost::json;

class TellAction final : public ChatAction {
public:
    static constexpr bool toUser = false;
    static constexpr bool toGroup = true;

    TellAction(Description description, bool isGroup) : ChatAction(std::move(description)), isGroup_(isGroup) {}

    int run(APIPort& port) override {
        showDone(isGroup_ ? port.post("api/v1/chat/group", json::object{{"group", whom_}, {"text", text_}})
                          : port.post("api/v1/chat/send", json::object{{"to", whom_}, {"text", text_}}));
        return 0;
    }

protected:
    void declare(CLI::App& options) override {
        options.add_option(isGroup_ ? "GROUP" : "USER", whom_, "Who is told")->required();
        options.add_option("TEXT", text_, "What")->required();
    }

private:
    const bool isGroup_;
    std::string whom_;
    std::string text_;
};

}  // namespace

void addTellActions(ChatActions& actions) {
    actions.push_back(std::make_unique<TellAction>(
        ChatAction::Description{"send", "Tell a user something", "skein chat send bob 'Have you got it?'"},
        TellAction::toUser));
    actions.push_back(std::make_unique<TellAction>(
        ChatAction::Description{"group", "Tell a group something; it is joined when needed",
                                "skein chat group grp_magnet 'Who has it?'"},
        TellAction::toGroup));
}

}  // namespace skein
