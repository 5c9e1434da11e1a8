#include "app/client/ChatLines.h"

#include "app/Command.h"
#include "public/common/Printable.h"
#include "public/common/RunOn.h"

#include <boost/json/serialize.hpp>

#include <ctime>
#include <ostream>

namespace skein {

namespace {

std::string textIn(const boost::json::object& message, std::string_view key) {
    const auto* const value = message.if_contains(key);
    return value != nullptr && value->is_string() ? printable(std::string(value->get_string())) : std::string();
}

}  // namespace

std::string chatLine(const boost::json::object& message) {
    const auto* const time = message.if_contains("time");
    const auto at = static_cast<std::time_t>(time == nullptr ? 0 : time->to_number<double>());
    std::tm local{};
    ::localtime_r(&at, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
    return std::string(date) + "  " + textIn(message, "from") + " → " + textIn(message, "to") + ": " +
           textIn(message, "text");
}

asio::awaitable<void> ChatLines::take(boost::json::object message) {
    const std::string type = textIn(message, "type");
    const bool isChat = type == "chat";
    if (!isChat && !(isJSON_ && type == "chatStatus")) co_return;
    auto write = [this, line = isJSON_ ? boost::json::serialize(message) : chatLine(message)] {
        if (!(out_ << line << std::endl)) throw CommandFailure("chat", "writing the output failed");
    };
    co_await runOn(disk_, std::move(write));
}

}  // namespace skein
