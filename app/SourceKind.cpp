#include "app/SourceKind.h"

#include "Core/engine/TorrentFile.h"
#include "app/Command.h"
#include "public/common/WholeFile.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

namespace skein {

namespace {

namespace fs = std::filesystem;

bool hasScheme(std::string_view source, std::string_view scheme) {
    return source.size() >= scheme.size() &&
           std::equal(scheme.begin(), scheme.end(), source.begin(), [](char expected, char given) {
               return expected == std::tolower(static_cast<unsigned char>(given));
           });
}

bool isScheme(std::string_view text) {
    const auto mayStandInIt = [](unsigned char character) {
        return std::isalnum(character) != 0 || character == '+' || character == '-' || character == '.';
    };
    return !text.empty() && std::isalpha(static_cast<unsigned char>(text.front())) != 0 &&
           std::all_of(text.begin(), text.end(), mayStandInIt);
}

}  // namespace

SourceKind sourceKindOf(std::string_view source) {
    if (hasScheme(source, "magnet:")) return SourceKind::magnetLink;
    const std::size_t end = source.find("://");
    if (end == source.npos || !isScheme(source.substr(0, end))) return SourceKind::file;
    const bool isWeb = hasScheme(source, "http://") || hasScheme(source, "https://");
    const std::string_view host = source.substr(end + 3);
    if (!isWeb || host.empty() || host.find_first_of("/?#:") == 0) return SourceKind::otherWeb;
    const std::string_view path = source.substr(0, source.find_first_of("?#"));
    return path.ends_with(".torrent") ? SourceKind::webTorrent : SourceKind::webFile;
}

Bytes readTorrentFile(const std::string& file) {
    std::error_code ignored;  // what is not there, reading tells
    const fs::file_type type = fs::status(file, ignored).type();
    const bool isOdd = type == fs::file_type::fifo || type == fs::file_type::socket ||
                       type == fs::file_type::character || type == fs::file_type::block;
    if (isOdd) throw CommandFailure(file, "Not a regular file");
    try {
        return readWholeFile(file, TorrentFile::maxBytes);
    } catch (const std::system_error& error) {
        throw CommandFailure(file, error.code().message());
    }
}

}  // namespace skein
