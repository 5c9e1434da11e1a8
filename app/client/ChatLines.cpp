#include "app/client/ChatLines.h"

#include "app/Command.h"
#include "public/common/ByteCountText.h"
#include "public/common/PlainJSON.h"
#include "public/common/Printable.h"
#include "public/common/RunOn.h"

#include <ctime>
#include <ostream>

namespace skein {

namespace {

std::string textIn(const boost::json::object& message, std::string_view key) {
    const auto* const value = message.if_contains(key);
    return value != nullptr && value->is_string() ? printable(std::string(value->get_string())) : std::string();
}

/// " [image photo.jpg, 1.2 MiB, message 7]", for `chat save-media 7`.
std::string mediaNote(const boost::json::object& message) {
    const auto* const value = message.if_contains("media");
    if (value == nullptr || !value->is_object()) return {};
    const boost::json::object& media = value->get_object();
    std::string note = textIn(media, "kind");
    if (const std::string name = textIn(media, "name"); !name.empty()) note += " " + name;
    const auto* const size = media.if_contains("size");
    if (size != nullptr && size->is_int64()) note += ", " + formatByteCount(size->get_int64());
    const auto* const id = message.if_contains("id");
    if (id != nullptr && id->is_int64()) note += ", message " + std::to_string(id->get_int64());
    return " [" + note + "]";
}

}  // namespace

std::string chatDate(const boost::json::object& message, std::string_view key) {
    const auto* const time = message.if_contains(key);
    const auto at = static_cast<std::time_t>(time == nullptr ? 0 : time->to_number<double>());
    std::tm local{};
    ::localtime_r(&at, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    return date;
}

std::string chatLine(const boost::json::object& message) {
    return chatDate(message, "time") + "  " + textIn(message, "from") + " → " + textIn(message, "to") + ": " +
           textIn(message, "text") + mediaNote(message);
}

asio::awaitable<void> ChatLines::take(boost::json::object message) {
    const std::string type = textIn(message, "type");
    const bool isChat = type == "chat";
    if (!isChat && !(isJSON_ && (type == "chatStatus" || type == "chatRead"))) co_return;
    auto write = [this, line = isJSON_ ? plainJSON(message) : chatLine(message)] {
        if (!(out_ << line << std::endl)) throw CommandFailure("chat", "writing the output failed");
    };
    co_await runOn(disk_, std::move(write));
}

}  // namespace skein
