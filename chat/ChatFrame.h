#pragma once

#include "chat/ChatMessage.h"

#include <boost/json/object.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The frames of the chat server, which are JSON objects whose "cmd" names their kind. Nothing here trusts them.
/// Plain functions; any thread.
namespace skein::chatFrame {

/// Nothing for what is not JSON, nests more than 32 levels deep, is no object, or has no text as its "cmd".
std::optional<boost::json::object> read(std::string_view text);

/// A text, or a number as its digits (servers differ in which of both they send an id or a time as); else empty.
std::string textOf(const boost::json::object& frame, std::string_view key);
/// A whole number, or a text that is one; else nothing.
std::optional<std::int64_t> numberOf(const boost::json::object& frame, std::string_view key);

/// What the "code" of a reply says. The success value is 0 or 200, as a number or a text; no "code" is no success.
bool isSuccess(const boost::json::object& reply);

/// A "newChat" frame, or one element of a history. Nothing when nobody sent it. A missing "to" is `owner`.
std::optional<ChatMessage> readChat(const boost::json::object& fields, const std::string& owner);
/// A "groupMsg" frame, or one element of a group's history: "groupId" (else "to", else `groupId`) names the group.
std::optional<ChatMessage> readGroupMessage(const boost::json::object& fields, const std::string& groupId = {});

/// The objects of the first list in `frame`, whatever its key: a history's messages, a list's friends or groups. A text
/// in the list stands for {"id": text}.
std::vector<boost::json::object> listOf(const boost::json::object& frame);
/// The ids of a friend list or group list: each element's "friendId", "groupId", "userId" or "id".
std::vector<std::string> idsOf(const boost::json::object& frame);

}  // namespace skein::chatFrame
