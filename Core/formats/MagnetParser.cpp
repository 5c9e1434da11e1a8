#include "Core/formats/MagnetParser.h"

#include "Core/formats/Whitespace.h"
#include "public/common/Bytes.h"

#include <algorithm>
#include <utility>

namespace skein::MagnetParser {

namespace {

constexpr std::string_view scheme = "magnet:?";
constexpr std::string_view hashPrefix = "urn:btih:";
constexpr std::string_view version2Prefix = "urn:btmh:";

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

/// `topic` begins with `hashPrefix`.
SHA1Digest parseInfoHash(std::string_view topic) {
    const auto refuse = [](std::string_view why) {
        return MagnetParseException(MagnetParseError::invalidInfoHash, why);
    };
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

/// A link may name its torrent in several ways; the first one that is ours counts.
SHA1Digest infoHashOf(const std::vector<std::string_view>& topics) {
    if (topics.empty()) throw MagnetParseException(MagnetParseError::missingInfoHash);
    const auto firstWith = [&](std::string_view prefix) {
        return std::find_if(topics.begin(), topics.end(),
                            [&](std::string_view topic) { return startsWithAnyCase(topic, prefix); });
    };
    const auto topic = firstWith(hashPrefix);
    if (topic != topics.end()) return parseInfoHash(*topic);
    if (firstWith(version2Prefix) != topics.end()) throw MagnetParseException(MagnetParseError::unsupportedVersion);
    throw MagnetParseException(MagnetParseError::invalidInfoHash, "Missing urn:btih: prefix");
}

/// Names are written as in web forms, where a plus sign is a space.
std::optional<std::string> decodedName(std::string_view value) {
    std::string spaced(value);
    std::replace(spaced.begin(), spaced.end(), '+', ' ');
    return percentDecoded(spaced);
}

MagnetLink parse(std::string_view uri) {
    const std::string_view trimmed = trimWhitespace(uri);
    if (!startsWithAnyCase(trimmed, scheme)) throw MagnetParseException(MagnetParseError::invalidScheme);

    MagnetLink link;
    std::vector<std::string_view> topics;
    std::optional<std::string_view> name;
    const auto addDecoded = [](std::vector<std::string>& to, std::string_view value) {
        if (auto decoded = percentDecoded(value)) to.push_back(std::move(*decoded));
    };
    forEachParameter(trimmed.substr(scheme.size()), [&](std::string_view key, std::string_view value) {
        if (key == "xt") topics.push_back(value);
        if (key == "dn" && !name) name = value;
        if (key == "tr") addDecoded(link.trackers, value);
        if (key == "ws") addDecoded(link.webSeeds, value);
    });
    link.infoHash = infoHashOf(topics);
    link.infoHashHex = toHex(link.infoHash);
    if (name) link.displayName = decodedName(*name);
    return link;
}

}  // namespace skein::MagnetParser
