#include "downloads/HTTPFileName.h"

#include "public/common/Bytes.h"
#include "public/common/OddCharacters.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace skein::HTTPFileName {

namespace {

constexpr auto extensions = std::to_array<std::string_view>({
    "pdf",  "doc",  "docx", "xls", "xlsx", "ppt",    "pptx", "odt",         "ods",  "odp",   "rtf", "tex",
    "epub", "zip",  "rar",  "7z",  "tar",  "gz",     "bz2",  "xz",          "tgz",  "iso",   "dmg", "img",
    "csv",  "json", "xml",  "sql", "db",   "sqlite", "hdf5", "h5",          "mat",  "npy",   "npz", "parquet",
    "exe",  "msi",  "deb",  "rpm", "pkg",  "apk",    "ipa",  "mp3",         "mp4",  "avi",   "mkv", "mov",
    "flac", "wav",  "ogg",  "bin", "pt",   "pth",    "onnx", "safetensors", "ckpt", "model",
});

constexpr std::string_view blank = " \t\r\n";

char lower(char character) noexcept {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

bool equalsIgnoringCase(std::string_view left, std::string_view right) {
    return std::ranges::equal(left, right, {}, lower, lower);
}

bool startsWithIgnoringCase(std::string_view text, std::string_view start) {
    return equalsIgnoringCase(text.substr(0, start.size()), start);
}

std::string_view trimmed(std::string_view text, std::string_view what) {
    const std::size_t first = text.find_first_not_of(what);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(what) - first + 1);
}

std::string percentDecoded(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = text[i] == '%' && i + 2 < text.size() ? fromHex(text.substr(i + 1, 2)) : std::nullopt;
        decoded += byte ? static_cast<char>(byte->front()) : text[i];
        if (byte) i += 2;
    }
    return decoded;
}

std::string fromLatin1(std::string_view text) {
    std::string converted;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x80) {
            converted += character;
        } else {
            converted += static_cast<char>(0xC0U | (byte >> 6U));
            converted += static_cast<char>(0x80U | (byte & 0x3FU));
        }
    }
    return converted;
}

bool standsInNames(char character) noexcept {
    return std::string_view("/\\:*?\"<>|").find(character) == std::string_view::npos;
}

/// The first `count` bytes, or fewer so as not to cut through a character.
std::string_view cut(std::string_view text, std::size_t count) {
    if (text.size() <= count) return text;
    while (count > 0 && (static_cast<unsigned char>(text[count]) & 0xC0U) == 0x80U) --count;
    return text.substr(0, count);
}

/// Where the extension begins, with its dot; the end when there is none.
std::size_t extensionOf(std::string_view name) {
    constexpr std::size_t longest = 16;
    std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos || dot == 0 || name.size() - dot > longest) return name.size();
    const std::size_t before = name.substr(0, dot).rfind('.');
    if (before != std::string_view::npos && before > 0 && name.substr(before, dot - before) == ".tar") dot = before;
    return dot;
}

/// The path of an http or https URL with a host; nothing for any other text.
std::optional<std::string_view> pathOf(std::string_view url) {
    const std::size_t colon = url.find("://");
    if (colon == std::string_view::npos) return std::nullopt;
    const std::string_view scheme = url.substr(0, colon);
    if (!equalsIgnoringCase(scheme, "http") && !equalsIgnoringCase(scheme, "https")) return std::nullopt;
    url.remove_prefix(colon + 3);
    url = url.substr(0, url.find_first_of("?#"));
    const std::size_t slash = url.find('/');
    if (slash == 0 || url.empty()) return std::nullopt;
    return slash == std::string_view::npos ? std::string_view() : url.substr(slash);
}

/// The value at the start of `text`, which is shortened to what comes after it and its ";".
std::string takeValue(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(blank), text.size()));
    std::string value;
    if (!text.starts_with('"')) {
        const std::size_t end = std::min(text.find(';'), text.size());
        value = trimmed(text.substr(0, end), blank);
        text.remove_prefix(std::min(end + 1, text.size()));
        return value;
    }
    std::size_t at = 1;
    for (; at < text.size() && text[at] != '"'; ++at) {
        // Only what must be escaped is taken for escaped: there are servers that send the paths of Windows.
        if (text[at] == '\\' && at + 1 < text.size() && (text[at + 1] == '"' || text[at + 1] == '\\')) ++at;
        value += text[at];
    }
    text.remove_prefix(std::min(text.find(';', at), text.size() - 1) + 1);
    return value;
}

std::optional<std::string> extendedName(std::string_view value) {
    constexpr std::string_view charset = "UTF-8'";
    if (!startsWithIgnoringCase(value, charset)) return std::nullopt;
    const std::size_t quote = value.find('\'', charset.size());  // after the language
    if (quote == std::string_view::npos) return std::nullopt;
    return safe(percentDecoded(value.substr(quote + 1)));
}

}  // namespace

std::optional<std::string> safe(std::string_view given) {
    const std::string text = isValidUTF8(asBytes(given)) ? std::string(given) : fromLatin1(given);
    const std::string plain = withoutOdd(trimmed(text, "/\\\"; \t\r\n"), '_');
    std::string_view name = trimmed(plain, "/\\\"; ");
    name = trimmed(name.substr(name.find_last_of("/\\") + 1), ".\"; \t\r\n");
    if (name.empty()) return std::nullopt;
    const std::size_t dot = extensionOf(name);
    const std::string_view extension = name.substr(dot);
    std::string result(cut(name.substr(0, dot), maxBytes - extension.size()));
    result += extension;
    std::ranges::replace_if(
        result, [](char character) { return !standsInNames(character); }, '_');
    return result;
}

std::optional<std::string> fromContentDisposition(std::string_view header) {
    std::optional<std::string> plain;
    std::optional<std::string> extended;
    for (bool isType = true; !header.empty(); isType = false) {
        const std::size_t end = header.find_first_of("=;");
        const std::string_view name = trimmed(header.substr(0, end), blank);
        const bool hasValue = end != std::string_view::npos && header[end] == '=';
        header.remove_prefix(end == std::string_view::npos ? header.size() : end + 1);
        if (!hasValue) continue;
        const std::string value = takeValue(header);
        // "attachment filename=…", without the semicolon, is met too.
        const std::string_view key = isType ? name.substr(name.find_last_of(blank) + 1) : name;
        if (!extended && equalsIgnoringCase(key, "filename*")) extended = extendedName(value);
        if (!plain && equalsIgnoringCase(key, "filename")) plain = safe(value);
    }
    return extended ? extended : plain;
}

std::optional<std::string> fromURL(std::string_view url) {
    auto path = pathOf(url);
    if (!path) return std::nullopt;
    while (path->ends_with('/')) path->remove_suffix(1);
    return safe(percentDecoded(path->substr(path->rfind('/') + 1)));
}

bool isDownloadableURL(std::string_view url) {
    const auto name = fromURL(url);
    if (!name) return false;
    const std::size_t dot = name->rfind('.');
    if (dot == std::string::npos || dot == 0) return false;
    const std::string_view extension = std::string_view(*name).substr(dot + 1);
    return std::ranges::any_of(extensions, [&](std::string_view one) { return equalsIgnoringCase(one, extension); });
}

std::span<const std::string_view> downloadableExtensions() noexcept { return extensions; }

std::string numbered(std::string_view name, int number) {
    if (number == 0) return std::string(name);
    const std::size_t dot = extensionOf(name);
    return std::string(name.substr(0, dot)) + " (" + std::to_string(number) + ")" + std::string(name.substr(dot));
}

}  // namespace skein::HTTPFileName
