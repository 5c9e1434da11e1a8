#include "Core/discovery/TrackerURL.h"

#include <algorithm>
#include <charconv>

namespace skein {

namespace {

/// Longer ones are no tracker's, and would only fill logs and requests.
constexpr std::size_t longestURL = 4096;

bool isPrintable(char character) noexcept {
    const auto byte = static_cast<unsigned char>(character);
    return byte > ' ' && byte != 0x7F;
}

bool isAlphanumeric(char character) noexcept {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
           (character >= '0' && character <= '9');
}

bool isHostCharacter(char character) noexcept {
    // Bytes beyond ASCII may be an international name.
    return isAlphanumeric(character) || static_cast<unsigned char>(character) >= 0x80 ||
           std::string_view("-._~%!$&'()*+,;=").find(character) != std::string_view::npos;
}

bool isIPv6Character(char character) noexcept {
    return isAlphanumeric(character) || character == ':' || character == '.' || character == '%';
}

/// Splits `text` at the first of `delimiters`: what is before it is returned, `text` keeps the rest with it.
std::string_view takeUntil(std::string_view& text, std::string_view delimiters) noexcept {
    const std::size_t end = std::min(text.find_first_of(delimiters), text.size());
    const std::string_view before = text.substr(0, end);
    text.remove_prefix(end);
    return before;
}

/// Host and port of an authority; false when it has none that can be.
bool parseAuthority(std::string_view authority, TrackerURL& url) {
    const std::size_t at = authority.rfind('@');
    if (at != std::string_view::npos) authority.remove_prefix(at + 1);
    std::string_view port;
    bool isHostValid = false;
    if (authority.starts_with('[')) {
        const std::size_t close = authority.find(']');
        if (close == std::string_view::npos) return false;
        url.host = authority.substr(1, close - 1);
        port = authority.substr(close + 1);
        isHostValid = std::all_of(url.host.begin(), url.host.end(), isIPv6Character);
    } else {
        port = authority;
        url.host = takeUntil(port, ":");
        isHostValid = std::all_of(url.host.begin(), url.host.end(), isHostCharacter);
    }
    if (url.host.empty() || !isHostValid) return false;
    if (port.empty() || port == ":") return true;
    if (port.front() != ':') return false;
    port.remove_prefix(1);
    std::uint16_t number = 0;
    const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
    if (error != std::errc() || end != port.data() + port.size()) return false;
    url.port = number;
    return true;
}

}  // namespace

std::optional<TrackerURL> TrackerURL::parse(std::string_view text) {
    if (text.size() > longestURL || !std::all_of(text.begin(), text.end(), isPrintable)) return std::nullopt;
    const std::size_t schemeEnd = text.find("://");
    if (schemeEnd == std::string_view::npos || schemeEnd == 0) return std::nullopt;
    TrackerURL url;
    url.scheme = text.substr(0, schemeEnd);
    text.remove_prefix(schemeEnd + 3);
    if (!parseAuthority(takeUntil(text, "/?#"), url)) return std::nullopt;
    url.path = takeUntil(text, "?#");
    if (text.starts_with('?')) {
        text.remove_prefix(1);
        url.query = takeUntil(text, "#");
    }
    return url;
}

std::string TrackerURL::withQuery(std::string_view more) const {
    std::string text = scheme + "://";
    text += host.find(':') == std::string::npos ? host : "[" + host + "]";
    if (port) text += ":" + std::to_string(*port);
    text += path + "?";
    if (query && !query->empty()) text += *query + "&";
    return text.append(more);
}

}  // namespace skein
