#include "app/chat/ChatAction.h"

#include "public/common/PlainJSON.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace skein {

void ChatAction::addTo(CLI::App& chat) {
    command_ = chat.add_subcommand(description_.name, description_.purpose);
    command_->footer("Example:\n  " + description_.example);
    command_->add_flag("--json", isJSON_, "As JSON");
    declare(*command_);
}

bool ChatAction::isChosen() const { return command_->parsed(); }

void ChatAction::showDone(const boost::json::value& answer) const {
    if (isJSON_) showJSON(answer);
}

void ChatAction::showJSON(const boost::json::value& answer) { std::cout << plainJSON(answer) << '\n'; }

}  // namespace skein
