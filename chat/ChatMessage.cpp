#include "chat/ChatMessage.h"

#include <charconv>
#include <string_view>
#include <system_error>

namespace skein {

namespace {

constexpr std::string_view mediaField = "|mediaJson:";

/// As a field of the record: nothing in it ends the field or the line.
std::string asField(std::string_view text) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string field;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= 0x20 && byte != 0x7F && byte != '|' && byte != '%') {
            field += character;
        } else {
            field += {'%', digits[byte >> 4U], digits[byte & 0xFU]};
        }
    }
    return field;
}

}  // namespace

std::string ChatMessage::recordLine() const {
    std::string line = isGroup ? "cmd:groupMsg" : "cmd:chat";
    line += "|vipName:" + asField(from) + "|destVip:" + asField(to) + "|timestamp:" + asField(timestamp);
    line += "|bundId:" + asField(bundId) + "|appType:" + asField(appType);
    if (!mediaJson.empty()) line.append(mediaField).append(mediaJson);
    return line;
}

std::string ChatMessage::mediaJsonIn(std::string_view recordLine) {
    const std::size_t at = recordLine.find(mediaField);  // no field before it can hold a "|"
    return at == std::string_view::npos ? std::string() : std::string(recordLine.substr(at + mediaField.size()));
}

std::int64_t ChatMessage::sentAt() const noexcept {
    constexpr std::int64_t firstMillisecondOf1973 = 94'694'400'000;
    constexpr std::int64_t lastMillisecondOf9999 = 253'402'300'799'999;
    std::int64_t time = 0;
    const auto [end, error] = std::from_chars(timestamp.data(), timestamp.data() + timestamp.size(), time);
    if (error != std::errc() || time < 0) return 0;
    if (time < firstMillisecondOf1973) time *= 1000;
    return time <= lastMillisecondOf9999 ? time : 0;
}

const std::string& ChatMessage::partnerOf(const std::string& owner) const noexcept {
    return isGroup || from == owner ? to : from;
}

}  // namespace skein
