#include "Core/engine/TorrentFile.h"

#include "Core/formats/BEncoder.h"
#include "public/common/OddCharacters.h"
#include "public/common/WholeFile.h"

#include <cstring>
#include <system_error>

namespace skein::TorrentFile {

namespace {

/// File systems take 255 bytes; ".torrent" and " (1)" must still fit.
constexpr std::size_t maxNameBytes = 240;

}  // namespace

std::optional<std::string> faultOf(ByteView data) {
    const BEncodeValue value = BEncoder::outlineOfTorrent(data).value;
    if (value.kind() != BEncodeValue::Kind::dictionary) return "Torrent file is not a dictionary";
    if (value["info"] == nullptr) return "Torrent file has no 'info' key";
    return std::nullopt;
}

Saved save(const std::filesystem::path& folder, std::string_view name, ByteView data) {
    std::filesystem::create_directories(folder);
    std::filesystem::path path = folder / (safeFileName(name) + ".torrent");
    if (std::filesystem::exists(std::filesystem::symlink_status(path))) {
        if (asText(readWholeFile(path, maxBytes)) == asText(data)) return {path, false};
        throw std::system_error(std::make_error_code(std::errc::file_exists), path.string());
    }
    replaceWholeFile(path, data, sharedFile);
    return {path, true};
}

Bytes infoDataOf(ByteView data) {
    const auto range = BEncoder::outlineOfTorrent(data).info;
    if (!range) return {};
    const ByteView info = data.subspan(range->begin, range->end - range->begin);
    return {info.begin(), info.end()};
}

std::string safeFileName(std::string_view name) {
    const std::string plain = withoutOdd(name, '_');
    std::string safe = plain.substr(0, maxNameBytes);
    for (char& character : safe)
        if (std::strchr("/\\:*?\"<>|", character) != nullptr) character = '_';
    if (plain.size() > maxNameBytes) {  // the cut may have gone through a character
        while (!safe.empty() && (static_cast<unsigned char>(safe.back()) & 0xC0U) == 0x80U) safe.pop_back();
        if (!safe.empty() && static_cast<unsigned char>(safe.back()) >= 0xC0U) safe.pop_back();
    }
    if (safe.empty() || safe == "." || safe == "..") return "torrent";
    return safe;
}

}  // namespace skein::TorrentFile
