#include "Core/formats/MagnetParser.h"

#include "Core/formats/Whitespace.h"
#include "public/common/Bytes.h"

#include <algorithm>
#include <utility>

namespace skein::MagnetParser {

namespace {

constexpr std::string_view scheme = "magnet:?";
constexpr std::string_view hashPrefix = "urn:btih:";

char toLower(char character) noexcept {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

bool startsWithAnyCase(std::string_view text, std::string_view lowerCasePrefix) {
    return text.size() >= lowerCasePrefix.size() &&
           std::equal(lowerCasePrefix.begin(), lowerCasePrefix.end(), text.begin(),
                      [](char expected, char character) { return expected == toLower(character); });
}

/// Calls `use(key, value)` for every "key=value" between the ampersands.
template <class Use>
void forEachParameter(std::string_view query, Use use) {
    while (!query.empty()) {
        const std::string_view piece = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(piece.size() + 1, query.size()));
        const std::size_t equals = piece.find('=');
        if (equals != std::string_view::npos) use(piece.substr(0, equals), piece.substr(equals + 1));
    }
}

std::optional<std::string> percentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        const auto byte = fromHex(text.substr(i + 1, 2));
        if (!byte || byte->empty()) return std::nullopt;
        decoded += static_cast<char>(byte->front());
        i += 2;
    }
    if (!isValidUTF8(asBytes(decoded))) return std::nullopt;
    return decoded;
}

/// Digits of five bits each, the alphabet of RFC 4648.
std::optional<Bytes> fromBase32(std::string_view text) {
    Bytes bytes;
    unsigned held = 0;
    unsigned heldBits = 0;
    for (const char character : text) {
        const char digit = toLower(character);
        if (digit == '=') continue;
        if (digit >= 'a' && digit <= 'z') {
            held = held << 5U | static_cast<unsigned>(digit - 'a');
        } else if (digit >= '2' && digit <= '7') {
            held = held << 5U | static_cast<unsigned>(digit - '2' + 26);
        } else {
            return std::nullopt;
        }
        heldBits += 5;
        if (heldBits < 8) continue;
        heldBits -= 8;
        bytes.push_back(static_cast<std::uint8_t>(held >> heldBits));
        held &= (1U << heldBits) - 1;
    }
    return bytes;
}

/// Characters, not bytes: what follows the first byte of a UTF-8 sequence does not count.
std::size_t characterCount(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(
        text.begin(), text.end(), [](char byte) { return (static_cast<unsigned>(byte) & 0xC0U) != 0x80U; }));
}

SHA1Digest parseInfoHash(std::string_view topic) {
    const auto refuse = [](std::string_view why) {
        return MagnetParseException(MagnetParseError::invalidInfoHash, why);
    };
    if (!startsWithAnyCase(topic, hashPrefix)) throw refuse("Missing urn:btih: prefix");
    const std::string_view text = topic.substr(hashPrefix.size());
    const std::size_t length = characterCount(text);
    if (length != 40 && length != 32)
        throw refuse("Hash must be 40 hex chars or 32 Base32 chars, got " + std::to_string(length));
    const auto bytes = length == 40 ? fromHex(text) : fromBase32(text);
    SHA1Digest infoHash{};
    // Padding among the 32 characters leaves fewer than 20 bytes.
    if (!bytes || bytes->size() != infoHash.size())
        throw refuse(length == 40 ? "Invalid hex string" : "Invalid Base32 string");
    std::copy(bytes->begin(), bytes->end(), infoHash.begin());
    return infoHash;
}

}  // namespace

MagnetLink parse(std::string_view uri) {
    const std::string_view trimmed = trimWhitespace(uri);
    if (!startsWithAnyCase(trimmed, scheme)) throw MagnetParseException(MagnetParseError::invalidScheme);

    MagnetLink link;
    std::optional<std::string_view> topic;
    std::optional<std::string_view> name;
    const auto addDecoded = [](std::vector<std::string>& to, std::string_view value) {
        if (auto decoded = percentDecoded(value)) to.push_back(std::move(*decoded));
    };
    forEachParameter(trimmed.substr(scheme.size()), [&](std::string_view key, std::string_view value) {
        if (key == "xt" && !topic) topic = value;
        if (key == "dn" && !name) name = value;
        if (key == "tr") addDecoded(link.trackers, value);
        if (key == "ws") addDecoded(link.webSeeds, value);
    });
    if (!topic) throw MagnetParseException(MagnetParseError::missingInfoHash);
    link.infoHash = parseInfoHash(*topic);
    link.infoHashHex = toHex(link.infoHash);
    if (name) link.displayName = percentDecoded(*name);
    return link;
}

}  // namespace skein::MagnetParser
