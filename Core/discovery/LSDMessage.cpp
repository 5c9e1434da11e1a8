#include "Core/discovery/LSDMessage.h"

#include <algorithm>
#include <charconv>

namespace skein {

namespace {

constexpr std::string_view opening = "BT-SEARCH";

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n\v\f";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool isLetterOrDigit(char character) {
    return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'z') ||
           (character >= 'A' && character <= 'Z');
}

// ASCII alone, whatever the locale.
char lower(char character) {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character + 32) : character;
}
char upper(char character) {
    return character >= 'a' && character <= 'z' ? static_cast<char>(character - 32) : character;
}

std::uint16_t portIn(std::string_view text) {
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() ? port : std::uint16_t{0};
}

void takeHeader(LSDMessage& message, std::string_view name, std::string_view value) {
    std::string key(name);
    std::transform(key.begin(), key.end(), key.begin(), lower);
    if (key == "port") message.port = portIn(value);
    if (key == "cookie") message.cookie = value;
    if (key == "peer-id") message.peerID = value;
    if (key == "infohash" && !value.empty()) {
        std::string& infoHash = message.infoHashes.emplace_back(value);
        std::transform(infoHash.begin(), infoHash.end(), infoHash.begin(), upper);
    }
}

}  // namespace

std::string LSDMessage::text() const {
    std::string text(opening);
    text.append(" * HTTP/1.1\r\nHost: ").append(multicastHost).append(":").append(std::to_string(multicastPort));
    text.append("\r\nPort: ").append(std::to_string(port));
    for (const std::string& infoHash : infoHashes) text.append("\r\nInfohash: ").append(infoHash);
    text.append("\r\nPeer-ID: ").append(peerID).append("\r\ncookie: ").append(cookie).append("\r\n\r\n");
    return text;
}

std::optional<LSDMessage> LSDMessage::parse(std::string_view datagram) {
    if (!datagram.starts_with(opening)) return std::nullopt;
    LSDMessage message;
    std::string_view rest = datagram.substr(0, maxBytes);
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        takeHeader(message, trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
    }
    return message;
}

std::string LSDMessage::peerIDText(ByteView peerID) {
    std::string text;
    for (const std::uint8_t byte : peerID) {
        const char character = static_cast<char>(byte);
        if (isLetterOrDigit(character) || std::string_view("-._~").find(character) != std::string_view::npos) {
            text += character;
        } else {
            text += '%';
            text += toUpperHex(ByteView(&byte, 1));
        }
    }
    return text;
}

}  // namespace skein
