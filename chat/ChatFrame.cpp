#include "chat/ChatFrame.h"

#include "public/common/PlainJSON.h"

#include <boost/json/parse.hpp>

#include <charconv>
#include <cmath>
#include <utility>

namespace skein::chatFrame {

namespace {

namespace json = boost::json;

/// Doubles hold every whole number up to here.
constexpr double largestWholeDouble = 9'007'199'254'740'992.0;

std::optional<std::int64_t> wholeNumber(const json::value& value) {
    if (value.is_int64()) return value.get_int64();
    if (value.is_double() && std::abs(value.get_double()) <= largestWholeDouble)
        return static_cast<std::int64_t>(value.get_double());  // "ts" with a fraction: the fraction is of no use
    if (!value.is_string()) return std::nullopt;
    const json::string& text = value.get_string();
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return number;
}

std::optional<ChatMessage> readMessage(const json::object& fields) {
    ChatMessage message;
    message.from = textOf(fields, "from");
    if (message.from.empty()) return std::nullopt;
    message.to = textOf(fields, "to");
    message.text = textOf(fields, "msg");
    message.timestamp = textOf(fields, "ts");
    message.bundId = textOf(fields, "bundId");
    message.appType = textOf(fields, "appType");
    const json::value* const media = fields.if_contains("media");
    if (media != nullptr && !media->is_null()) message.mediaJson = plainJSON(*media);
    return message;
}

}  // namespace

std::optional<json::object> read(std::string_view text) {
    boost::system::error_code error;
    json::value value = json::parse(json::string_view(text.data(), text.size()), error);
    if (error || !value.is_object()) return std::nullopt;
    const json::value* const command = value.get_object().if_contains("cmd");
    if (command == nullptr || !command->is_string()) return std::nullopt;
    return std::move(value.get_object());
}

std::string textOf(const json::object& frame, std::string_view key) {
    const json::value* const value = frame.if_contains(json::string_view(key.data(), key.size()));
    if (value == nullptr) return {};
    if (value->is_string()) return std::string(std::string_view(value->get_string()));
    const auto number = wholeNumber(*value);
    return number ? std::to_string(*number) : std::string();
}

std::optional<std::int64_t> numberOf(const json::object& frame, std::string_view key) {
    const json::value* const value = frame.if_contains(json::string_view(key.data(), key.size()));
    return value == nullptr ? std::nullopt : wholeNumber(*value);
}

bool isSuccess(const json::object& reply) {
    const auto code = numberOf(reply, "code");
    return code && (*code == 0 || *code == 200);
}

std::optional<ChatMessage> readChat(const json::object& fields, const std::string& owner) {
    auto message = readMessage(fields);
    if (message && message->to.empty()) message->to = owner;
    return message;
}

std::optional<ChatMessage> readGroupMessage(const json::object& fields, const std::string& groupId) {
    auto message = readMessage(fields);
    if (!message) return std::nullopt;
    message->isGroup = true;
    if (std::string group = textOf(fields, "groupId"); !group.empty()) message->to = std::move(group);
    if (message->to.empty()) message->to = groupId;
    if (message->to.empty()) return std::nullopt;
    return message;
}

std::vector<json::object> listOf(const json::object& frame) {
    std::vector<json::object> objects;
    for (const auto& field : frame) {
        if (!field.value().is_array()) continue;
        for (const json::value& element : field.value().get_array()) {
            if (element.is_object()) objects.push_back(element.get_object());
            if (element.is_string()) objects.push_back({{"id", element}});
        }
        break;
    }
    return objects;
}

std::vector<std::string> idsOf(const json::object& frame) {
    std::vector<std::string> ids;
    for (const json::object& element : listOf(frame)) {
        for (const char* key : {"friendId", "groupId", "userId", "id"}) {
            std::string id = textOf(element, key);
            if (id.empty()) continue;
            ids.push_back(std::move(id));
            break;
        }
    }
    return ids;
}

}  // namespace skein::chatFrame
