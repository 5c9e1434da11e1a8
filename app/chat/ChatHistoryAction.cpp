#include "app/chat/ChatAction.h"
#include "app/client/ChatLines.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <optional>

namespace skein {

namespace {

namespace json = boost::json;

/// Seconds since 1970 of such a number, or of a local date with or without a time; nothing for another text.
std::optional<double> timeOf(const std::string& text) {
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (!text.empty() && *end == '\0' && seconds >= 0) return seconds;
    for (const char* const form : {"%Y-%m-%d %H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        std::tm date{};
        date.tm_isdst = -1;
        const char* const rest = ::strptime(text.c_str(), form, &date);
        if (rest != nullptr && *rest == '\0') return static_cast<double>(std::mktime(&date));
    }
    return std::nullopt;
}

std::string checkTime(const std::string& text) {
    return timeOf(text) ? "" : "Neither YYYY-MM-DD [HH:MM[:SS]] nor seconds since 1970: " + text;
}

std::string asText(double seconds) {
    char text[40];
    std::snprintf(text, sizeof text, "%.3f", seconds);
    return text;
}

class HistoryAction final : public ChatAction {
public:
    HistoryAction()
        : ChatAction(
              {"history", "What was said between a user and you, or in a group; offline too",
               "skein chat history bob --limit 20\n  skein chat history --group grp_magnet --before 2026-11-01"}) {}

    int run(APIPort& port) override {
        std::string path =
            std::string("api/v1/chat/history?") + (isGroup_ ? "group=" : "user=") + percentEncoded(whom_);
        path += "&limit=" + std::to_string(limit_);
        if (!before_.empty()) path += "&before=" + asText(timeOf(before_).value_or(0));
        show(port.get(path), [this](const json::value& history) { print(history.as_array()); });
        return 0;
    }

protected:
    void declare(CLI::App& options) override {
        options.add_option("USER", whom_, "With whom")->required();
        options.add_flag("--group", isGroup_, "USER is a group");
        options.add_option("--limit", limit_, "The newest so many")->check(CLI::Range(1, 200))->capture_default_str();
        options.add_option("--before", before_, "Only what was said before; a local date, or seconds since 1970")
            ->type_name("TIME")
            ->check(CLI::Validator(checkTime, ""));
    }

private:
    void print(const json::array& history) const {
        for (const json::value& message : history) std::cout << chatLine(message.as_object()) << '\n';
        if (std::cmp_less(history.size(), limit_)) return;
        std::cerr << "older ones: --before " << asText(history.front().at("time").to_number<double>()) << '\n';
    }

    std::string whom_;
    bool isGroup_ = false;
    int limit_ = 50;
    std::string before_;
};

}  // namespace

void addHistoryAction(ChatActions& actions) { actions.push_back(std::make_unique<HistoryAction>()); }

}  // namespace skein
