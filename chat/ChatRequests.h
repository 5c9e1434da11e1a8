#pragma once

#include "chat/ChatIdentity.h"
#include "chat/ChatTerminal.h"

#include <boost/json/object.hpp>

#include <cstdint>
#include <string_view>

/// The requests to the chat server, "cmd" first and their keys in the protocol's order; "seq" is added when one is
/// sent. Times are milliseconds since 1970. Plain functions; any thread.
namespace skein::chatRequests {

boost::json::object login(const ChatAccount& account, const ChatTerminal& terminal);
boost::json::object sendChat(std::string_view to, std::string_view type, std::string_view text,
                             const ChatTerminal& terminal);
/// The newest `limit` messages sent before `before`.
boost::json::object getChatHistory(std::string_view to, std::int64_t before, std::int64_t limit);
boost::json::object readChat(std::string_view to, std::int64_t readTime);
boost::json::object getFriendList();
boost::json::object addFriend(std::string_view friendId);
boost::json::object deleteFriend(std::string_view friendId);
boost::json::object sendGroupMsg(std::string_view groupId, std::int64_t level, std::string_view text);
boost::json::object joinGroup(std::string_view groupId);
boost::json::object getGroupList();
boost::json::object getGroupHistory(std::string_view groupId, std::int64_t before, std::int64_t limit);
boost::json::object logout();
boost::json::object ping();

}  // namespace skein::chatRequests
