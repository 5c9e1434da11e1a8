#include "Core/wire/PeerIDClientParser.h"

#include <algorithm>
#include <array>
#include <utility>

namespace skein::PeerIDClientParser {

namespace {

using Client = std::pair<std::string_view, std::string_view>;

/// What the two letters of the dash form stand for.
constexpr std::array clients{
    Client{"UT", "µTorrent"},   Client{"qB", "qBittorrent"}, Client{"LT", "libtorrent"}, Client{"TR", "Transmission"},
    Client{"BC", "BitComet"},   Client{"AZ", "Vuze"},        Client{"DE", "Deluge"},     Client{"KT", "KTorrent"},
    Client{"WW", "WebTorrent"}, Client{"AR", "Aria2"},
};

bool isPrintable(std::uint8_t byte) noexcept { return byte >= 0x20 && byte < 0x7F; }

bool isLetterOrDigit(char character) noexcept {
    return (character >= '0' && character <= '9') || (character >= 'A' && character <= 'Z') ||
           (character >= 'a' && character <= 'z');
}

}  // namespace

std::string prefix(ByteView peerID) {
    const auto end = std::find_if_not(peerID.begin(), peerID.end(), isPrintable);
    return {peerID.begin(), end};
}

std::optional<std::string> clientName(ByteView peerID) {
    const std::string_view id = asText(peerID);
    if (id.size() < 8 || id[0] != '-' || id[7] != '-') return legacyClientName(prefix(peerID));
    const auto* const client = std::find_if(clients.begin(), clients.end(),
                                            [code = id.substr(1, 2)](const Client& one) { return one.first == code; });
    if (client == clients.end()) return std::nullopt;
    std::string name(client->second);
    const std::string version = formatVersion(id.substr(3, 4));
    if (!version.empty()) name.append(" ").append(version);
    return name;
}

std::string formatVersion(std::string_view version) {
    std::string formatted;
    for (const char character : version) {
        if (!isLetterOrDigit(character)) continue;
        if (!formatted.empty()) formatted += '.';
        formatted += character;
    }
    return formatted;
}

std::optional<std::string> legacyClientName(std::string_view prefix) {
    if (prefix.starts_with('M')) return "Mainline";
    if (prefix.starts_with("exbc")) return "BitComet";
    return std::nullopt;
}

}  // namespace skein::PeerIDClientParser
