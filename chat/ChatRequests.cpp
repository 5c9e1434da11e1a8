#include "chat/ChatRequests.h"

#include <boost/json/value.hpp>

namespace skein::chatRequests {

namespace {

namespace json = boost::json;

json::value text(std::string_view value) { return json::string(json::string_view(value.data(), value.size())); }

}  // namespace

json::object login(const ChatAccount& account, const ChatTerminal& terminal) {
    return {{"cmd", "login"},
            {"user", text(account.user)},
            {"pass", text(account.pass)},
            {"device", text(account.device)},
            {"APNsToken", ""},
            {"bundId", text(terminal.bundId)},
            {"sandbox", false},
            {"osVer", text(terminal.osVer)},
            {"termType", text(terminal.termType)},
            {"softVer", text(terminal.softVer)},
            {"codeVer", text(terminal.codeVer)}};
}

json::object sendChat(std::string_view to, std::string_view type, std::string_view msg, const ChatTerminal& terminal) {
    return {{"cmd", "sendChat"},
            {"to", text(to)},
            {"type", text(type)},
            {"msg", text(msg)},
            {"bundId", text(terminal.bundId)}};
}

json::object getChatHistory(std::string_view to, std::int64_t before, std::int64_t limit) {
    return {{"cmd", "getChatHistory"}, {"to", text(to)}, {"before", before}, {"limit", limit}};
}

json::object readChat(std::string_view to, std::int64_t readTime) {
    return {{"cmd", "readChat"}, {"to", text(to)}, {"readTime", readTime}};
}

json::object getFriendList() { return {{"cmd", "getFriendList"}}; }

json::object addFriend(std::string_view friendId) { return {{"cmd", "addFriend"}, {"friendId", text(friendId)}}; }

json::object deleteFriend(std::string_view friendId) { return {{"cmd", "deleteFriend"}, {"friendId", text(friendId)}}; }

json::object sendGroupMsg(std::string_view groupId, std::int64_t level, std::string_view msg) {
    return {{"cmd", "sendGroupMsg"}, {"groupId", text(groupId)}, {"level", level}, {"msg", text(msg)}};
}

json::object joinGroup(std::string_view groupId) { return {{"cmd", "joinGroup"}, {"groupId", text(groupId)}}; }

json::object getGroupList() { return {{"cmd", "getGroupList"}}; }

json::object getGroupHistory(std::string_view groupId, std::int64_t before, std::int64_t limit) {
    return {{"cmd", "getGroupHistory"}, {"groupId", text(groupId)}, {"before", before}, {"limit", limit}};
}

json::object logout() { return {{"cmd", "logout"}}; }

json::object ping() { return {{"cmd", "ping"}}; }

}  // namespace skein::chatRequests
