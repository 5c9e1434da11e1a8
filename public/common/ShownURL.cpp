#include "public/common/ShownURL.h"

#include <algorithm>

namespace skein {

namespace {

constexpr std::string_view hidden = "…";
constexpr std::string_view afterScheme = "://";
constexpr std::string_view magnetStart = "magnet:?";
/// What no URL holds.
constexpr std::string_view blanks = " \t\r\n\"<>";

bool isDigit(char character) noexcept { return character >= '0' && character <= '9'; }
bool isLower(char character) noexcept { return character >= 'a' && character <= 'z'; }
bool isUpper(char character) noexcept { return character >= 'A' && character <= 'Z'; }
bool isAlphanumeric(char character) noexcept { return isDigit(character) || isLower(character) || isUpper(character); }
bool isHexDigit(char character) noexcept {
    return isDigit(character) || (character >= 'a' && character <= 'f') || (character >= 'A' && character <= 'F');
}
bool isOfKey(char character) noexcept { return isAlphanumeric(character) || character == '-' || character == '_'; }
bool isOfScheme(char character) noexcept {
    return isAlphanumeric(character) || character == '+' || character == '-' || character == '.';
}

/// Where the next magnet link begins; npos when there is none. The scheme may be written in any case (RFC 3986, 3.1).
std::size_t findMagnet(std::string_view text, std::size_t from) noexcept {
    const auto isSame = [](char left, char right) { return (isUpper(left) ? left - 'A' + 'a' : left) == right; };
    const auto* const start = text.begin() + std::min(from, text.size());
    const auto* const found = std::search(start, text.end(), magnetStart.begin(), magnetStart.end(), isSame);
    return found == text.end() ? std::string_view::npos : static_cast<std::size_t>(found - text.begin());
}

/// Without the punctuation of the sentence that the URL stands in.
std::size_t withoutPunctuation(std::string_view text, std::size_t end) noexcept {
    while (end > 0 && std::string_view(".,;:!)]}'").find(text[end - 1]) != std::string_view::npos) --end;
    return end;
}

/// Splits `text` at the first of `delimiters`: what is before it is returned, `text` keeps the rest with it.
std::string_view takeUntil(std::string_view& text, std::string_view delimiters) noexcept {
    const std::string_view before = text.substr(0, text.find_first_of(delimiters));
    text.remove_prefix(before.size());
    return before;
}

/// Keys are hex digits, or mix letters and digits, or cases, far more often than names made of words do.
bool looksLikeKey(std::string_view part) noexcept {
    constexpr std::size_t shortestKey = 16;
    constexpr std::size_t longestWord = 24;
    if (part.size() < shortestKey) return false;
    if (std::all_of(part.begin(), part.end(), isHexDigit)) return true;
    std::size_t changes = 0;
    std::size_t wordLength = 0;
    char before = '\0';
    for (const char character : part) {
        wordLength = isAlphanumeric(character) ? wordLength + 1 : 0;
        if (wordLength > longestWord) return true;
        if (!isAlphanumeric(character)) continue;
        const bool isOtherKind = isDigit(before) != isDigit(character) || (isLower(before) && isUpper(character));
        if (before != '\0' && isOtherKind) ++changes;
        before = character;
    }
    return changes * 5 >= part.size();
}

bool isInfoHashFile(std::string_view segment) noexcept {
    constexpr std::size_t hashDigits = 40;
    return segment.size() > hashDigits && segment.substr(hashDigits) == ".torrent" &&
           std::all_of(segment.begin(), segment.begin() + hashDigits, isHexDigit);
}

void appendSegment(std::string& shown, std::string_view segment) {
    if (isInfoHashFile(segment)) {
        shown += segment;
        return;
    }
    while (!segment.empty()) {
        const auto* const end = std::find_if_not(segment.begin(), segment.end(), isOfKey);
        const std::string_view part = segment.substr(0, static_cast<std::size_t>(end - segment.begin()));
        shown += looksLikeKey(part) ? hidden : part;
        segment.remove_prefix(part.size());
        if (segment.empty()) break;
        shown += segment.front();
        segment.remove_prefix(1);
    }
}

void appendPath(std::string& shown, std::string_view path) {
    while (!path.empty()) {
        appendSegment(shown, takeUntil(path, "/"));
        if (path.empty()) break;
        shown += '/';
        path.remove_prefix(1);
    }
}

/// `isSecret` tells by a field's name whether its value is hidden.
template <class IsSecret>
void appendFields(std::string& shown, std::string_view query, IsSecret isSecret) {
    while (!query.empty()) {
        std::string_view field = takeUntil(query, "&;");
        const std::string_view name = takeUntil(field, "=");
        appendSegment(shown, name);
        if (!field.empty()) {
            shown += '=';
            shown += field.size() > 1 && isSecret(name) ? hidden : field.substr(1);
        }
        if (query.empty()) break;
        shown += query.front();
        query.remove_prefix(1);
    }
}

/// Trackers, web seeds and sources are URLs; the hash and the name are what the link is known by.
bool holdsURL(std::string_view magnetField) noexcept {
    const std::string_view name = magnetField.substr(0, 2);
    return name == "tr" || name == "ws" || name == "as" || name == "xs";
}

/// Where the URL ends that `text` starts with, the length of its scheme being `schemeLength`.
std::size_t endOfURL(std::string_view text, std::size_t schemeLength) noexcept {
    std::size_t end = std::min(text.find_first_of(blanks), text.size());
    // In a list without blanks, the next URL begins within this one.
    std::size_t next = text.substr(0, end).find(afterScheme, schemeLength + afterScheme.size());
    if (next != std::string_view::npos) {
        while (next > 0 && isAlphanumeric(text[next - 1])) --next;
        end = std::max(next, schemeLength + afterScheme.size());
    }
    return withoutPunctuation(text, end);
}

}  // namespace

std::string shownURL(std::string_view url) {
    if (findMagnet(url, 0) == 0) {
        std::string shown(url.substr(0, magnetStart.size()));
        appendFields(shown, url.substr(magnetStart.size()), holdsURL);
        return shown;
    }
    const std::size_t schemeEnd = url.find(afterScheme);
    if (schemeEnd == std::string_view::npos) return std::string(url);
    std::string shown(url.substr(0, schemeEnd + afterScheme.size()));
    url.remove_prefix(shown.size());
    const std::string_view authority = takeUntil(url, "/?#");
    const std::size_t at = authority.rfind('@');
    if (at != std::string_view::npos) shown += hidden;
    shown += authority.substr(at == std::string_view::npos ? 0 : at);
    appendPath(shown, takeUntil(url, "?#"));
    if (url.starts_with('?')) {
        shown += '?';
        url.remove_prefix(1);
        appendFields(shown, takeUntil(url, "#"), [](std::string_view) { return true; });
    }
    if (url.size() > 1) shown.append("#").append(hidden);
    return shown;
}

std::string withShownURLs(std::string_view text) {
    std::string shown;
    std::size_t done = 0;
    std::size_t magnet = findMagnet(text, 0);
    for (;;) {
        const std::size_t mark = text.find(afterScheme, done);
        if (magnet < done) magnet = findMagnet(text, done);
        if (std::min(magnet, mark) == std::string_view::npos) break;
        std::size_t start = magnet;
        std::size_t end = 0;
        if (mark < magnet) {
            start = mark;
            while (start > done && isOfScheme(text[start - 1])) --start;
            end = start + std::max(endOfURL(text.substr(start), mark - start), mark - start + afterScheme.size());
        } else {
            const std::string_view link = text.substr(start, text.find_first_of(blanks, start) - start);
            end = start + std::max(withoutPunctuation(link, link.size()), magnetStart.size());
        }
        shown.append(text.substr(done, start - done)).append(shownURL(text.substr(start, end - start)));
        done = end;
    }
    return shown.append(text.substr(done));
}

}  // namespace skein
