#include "Core/formats/TorrentMetaInfo.h"

#include "Core/formats/Whitespace.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace skein {

namespace {

constexpr auto none = std::string_view::npos;

bool isLetter(char character) noexcept {
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z');
}
bool isHostCharacter(char character) noexcept {
    return isLetter(character) || (character >= '0' && character <= '9') || character == '.' || character == '-';
}

/// A part of the text to take out: [begin, end).
struct Match {
    std::size_t begin;
    std::size_t end;
};

/// `text` without the matches that `find(text, from)` yields one after the other.
template <class Find>
std::string without(std::string_view text, Find find) {
    std::string kept;
    kept.reserve(text.size());
    std::size_t from = 0;
    while (const std::optional<Match> match = find(text, from)) {
        kept += text.substr(from, match->begin - from);
        from = match->end;
    }
    return kept += text.substr(from);
}

/// From an opening bracket to the first closing one.
auto bracketed(std::string_view open, std::string_view close) {
    return [open, close](std::string_view text, std::size_t from) -> std::optional<Match> {
        const std::size_t begin = text.find(open, from);
        if (begin == none) return std::nullopt;
        const std::size_t end = text.find(close, begin + open.size());
        if (end == none) return std::nullopt;
        return Match{begin, end + close.size()};
    };
}

/// http:// or https:// and what follows it up to white space, which is at least one character.
std::optional<Match> webAddress(std::string_view text, std::size_t from) {
    constexpr std::string_view scheme = "http";
    for (std::size_t begin = text.find(scheme, from); begin != none; begin = text.find(scheme, begin + 1)) {
        std::size_t end = begin + scheme.size();
        if (text.substr(end).starts_with('s')) ++end;
        if (!text.substr(end).starts_with("://")) continue;
        const std::size_t host = end + 3;
        for (end = host; end < text.size() && whitespaceAt(text, end) == 0;) ++end;
        if (end > host) return Match{begin, end};
    }
    return std::nullopt;
}

/// www. and a host name: at least one character, then a dot and at least two letters, as far right as possible.
class HostNames {
public:
    std::optional<Match> operator()(std::string_view text, std::size_t from) {
        constexpr std::string_view start = "www.";
        for (std::size_t begin = text.find(start, from); begin != none; begin = text.find(start, begin + 1)) {
            if (begin >= runEnd_) measureRun(text, begin);
            if (lastDot_ != none && lastDot_ > begin + start.size()) return Match{begin, matchEnd_};
        }
        return std::nullopt;
    }

private:
    /// All starts in one run of host characters share its end and its last fitting dot: found once, not for each.
    void measureRun(std::string_view text, std::size_t begin) {
        for (runEnd_ = begin; runEnd_ < text.size() && isHostCharacter(text[runEnd_]);) ++runEnd_;
        lastDot_ = none;
        std::size_t lettersEnd = runEnd_;
        for (std::size_t i = runEnd_; i-- > begin;) {
            if (text[i] == '.' && lettersEnd - i > 2) {
                lastDot_ = i;
                matchEnd_ = lettersEnd;
                return;
            }
            if (!isLetter(text[i])) lettersEnd = i;
        }
    }

    std::size_t runEnd_ = 0;
    std::size_t lastDot_ = none;
    std::size_t matchEnd_ = 0;
};

std::string withSingleSpaces(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        std::size_t length = whitespaceAt(text, i);
        if (length == 0) {
            result += text[i++];
            continue;
        }
        result += ' ';
        for (; length > 0; length = whitespaceAt(text, i)) i += length;
    }
    return result;
}

}  // namespace

ByteView TorrentMetaInfo::pieceHash(int index) const {
    return ByteView(pieces).subspan(static_cast<std::size_t>(index) * sha1Length, sha1Length);
}

std::int64_t TorrentMetaInfo::pieceSize(int index) const noexcept {
    if (pieceLength < 1) return 0;
    if (index < pieceCount() - 1) return pieceLength;
    const std::int64_t rest = totalSize % pieceLength;
    return rest == 0 ? pieceLength : rest;
}

TorrentMetaInfo TorrentMetaInfo::storedAs(const std::string& top) const {
    TorrentMetaInfo renamed = *this;
    for (TorrentFileInfo& file : renamed.files.edit())
        if (file.path.starts_with(name)) file.path.replace(0, name.size(), top);
    return renamed;
}

std::string TorrentMetaInfo::cleanDisplayName(std::string_view name) {
    constexpr std::string_view strayPunctuation = "-_ .";
    std::string text = without(name, bracketed("[", "]"));
    text = without(text, bracketed("【", "】"));
    text = without(text, webAddress);
    text = without(text, HostNames());
    text = withSingleSpaces(text);
    std::string_view clean = trimWhitespace(text);
    clean.remove_prefix(std::min(clean.find_first_not_of(strayPunctuation), clean.size()));
    clean = clean.substr(0, clean.find_last_not_of(strayPunctuation) + 1);
    return std::string(clean.empty() ? name : clean);
}

}  // namespace skein
