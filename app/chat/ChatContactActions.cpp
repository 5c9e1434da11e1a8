#include "app/chat/ChatAction.h"
#include "public/common/Printable.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <functional>
#include <iostream>

namespace skein {

namespace {

namespace json = boost::json;

/// Prints the ids of the friends, or of the groups.
class ListAction final : public ChatAction {
public:
    ListAction(Description description, std::string path)
        : ChatAction(std::move(description)), path_(std::move(path)) {}

    int run(APIPort& port) override {
        show(port.get(path_), [](const json::value& ids) {
            for (const json::value& id : ids.as_array()) std::cout << printable(std::string(id.as_string())) << '\n';
        });
        return 0;
    }

protected:
    void declare(CLI::App&) override {}

private:
    const std::string path_;
};

/// Does one thing to a user or a group.
class ContactAction final : public ChatAction {
public:
    using Call = std::function<json::value(APIPort& port, const std::string& whom)>;

    ContactAction(Description description, std::string operand, Call call)
        : ChatAction(std::move(description)), operand_(std::move(operand)), call_(std::move(call)) {}

    int run(APIPort& port) override {
        showDone(call_(port, whom_));
        return 0;
    }

protected:
    void declare(CLI::App& options) override { options.add_option(operand_, whom_, "Whom or which")->required(); }

private:
    const std::string operand_;
    const Call call_;
    std::string whom_;
};

json::value addFriend(APIPort& port, const std::string& user) {
    return port.post("api/v1/chat/friends", json::object{{"user", user}});
}

json::value deleteFriend(APIPort& port, const std::string& user) {
    return port.remove("api/v1/chat/friends/" + percentEncoded(user));
}

json::value joinGroup(APIPort& port, const std::string& group) {
    return port.post("api/v1/chat/groups", json::object{{"group", group}});
}

}  // namespace

void addContactActions(ChatActions& actions) {
    using Description = ChatAction::Description;
    actions.push_back(std::make_unique<ListAction>(Description{"friends", "The friend list", "skein chat friends"},
                                                   "api/v1/chat/friends"));
    actions.push_back(std::make_unique<ContactAction>(
        Description{"add-friend", "Put a user on the friend list", "skein chat add-friend bob"}, "USER", addFriend));
    actions.push_back(std::make_unique<ContactAction>(
        Description{"delete-friend", "Take a user off the friend list", "skein chat delete-friend bob"}, "USER",
        deleteFriend));
    actions.push_back(std::make_unique<ListAction>(Description{"groups", "The groups you are in", "skein chat groups"},
                                                   "api/v1/chat/groups"));
    actions.push_back(std::make_unique<ContactAction>(
        Description{"join", "Join a group without telling it anything", "skein chat join grp_magnet"}, "GROUP",
        joinGroup));
}

}  // namespace skein
