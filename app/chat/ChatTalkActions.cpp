#include "app/chat/ChatAction.h"
#include "app/client/ChatLines.h"
#include "public/common/Printable.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

class ConversationsAction final : public ChatAction {
public:
    ConversationsAction()
        : ChatAction({"conversations", "Whom you talked with, and how many messages you have not read; offline too",
                      "skein chat conversations"}) {}

    int run(APIPort& port) override {
        show(port.get("api/v1/chat/talks"), [](const json::value& talks) {
            for (const json::value& talk : talks.as_array())
                std::cout << chatDate(talk.as_object(), "lastTime") << "  "
                          << talk.at("unread").to_number<std::int64_t>() << " unread  "
                          << (talk.at("isGroup").as_bool() ? "group " : "") << text(talk, "id") << "  "
                          << text(talk, "lastFrom") << ": " << text(talk, "lastText") << '\n';
        });
        return 0;
    }

protected:
    void declare(CLI::App&) override {}

private:
    static std::string text(const json::value& talk, std::string_view key) {
        return printable(std::string(talk.at(key).as_string()));
    }
};

class ReadAction final : public ChatAction {
public:
    ReadAction()
        : ChatAction({"read", "Mark what a user told you, or what was said in a group, as read",
                      "skein chat read bob\n  skein chat read --group grp_magnet"}) {}

    int run(APIPort& port) override {
        showDone(port.post("api/v1/chat/read", json::object{{isGroup_ ? "group" : "user", whom_}}));
        return 0;
    }

protected:
    void declare(CLI::App& options) override {
        options.add_option("USER", whom_, "With whom")->required();
        options.add_flag("--group", isGroup_, "USER is a group");
    }

private:
    std::string whom_;
    bool isGroup_ = false;
};

}  // namespace

void addTalkActions(ChatActions& actions) {
    actions.push_back(std::make_unique<ConversationsAction>());
    actions.push_back(std::make_unique<ReadAction>());
}

}  // namespace skein
