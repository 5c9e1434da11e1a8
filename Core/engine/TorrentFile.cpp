#include "Core/engine/TorrentFile.h"

#include "Core/formats/BEncoder.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace skein::TorrentFile {

namespace {

/// File systems take 255 bytes; ".torrent" and " (1)" must still fit.
constexpr std::size_t maxNameBytes = 240;

[[noreturn]] void throwFault(const std::filesystem::path& path, int error) {
    throw std::runtime_error(path.string() + ": " + std::strerror(error));
}

}  // namespace

std::optional<std::string> faultOf(ByteView data) {
    const BEncodeValue value = BEncoder::decode(data);
    if (value.kind() != BEncodeValue::Kind::dictionary) return "Torrent file is not a dictionary";
    if (value["info"] == nullptr) return "Torrent file has no 'info' key";
    return std::nullopt;
}

Bytes read(const std::filesystem::path& path) {
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) throwFault(path, EISDIR);
    errno = 0;
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) throwFault(path, errno == 0 ? EIO : errno);
    const auto size = static_cast<std::streamoff>(file.tellg());
    if (size < 0 || static_cast<std::size_t>(size) > maxBytes)
        throw std::runtime_error(path.string() + ": larger than a .torrent file can be");
    Bytes data(static_cast<std::size_t>(size));
    file.seekg(0);
    file.read(reinterpret_cast<char*>(data.data()), size);
    if (!file) throwFault(path, EIO);
    return data;
}

std::filesystem::path save(const std::filesystem::path& folder, std::string_view name, ByteView data) {
    std::filesystem::create_directories(folder);
    const std::filesystem::path path = folder / (safeFileName(name) + ".torrent");
    if (std::filesystem::exists(std::filesystem::symlink_status(path))) {
        if (std::filesystem::file_size(path) <= maxBytes && asText(read(path)) == asText(data)) return path;
        throw std::runtime_error(path.string() + ": another file of that name exists");
    }
    std::filesystem::path temporary = path;
    temporary += ".tmp";
    {
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
        file.close();
        if (!file) {
            const int error = errno;
            std::filesystem::remove(temporary);
            throwFault(path, error == 0 ? EIO : error);
        }
    }
    std::filesystem::rename(temporary, path);
    return path;
}

std::string safeFileName(std::string_view name) {
    std::string safe(name.substr(0, maxNameBytes));
    for (char& character : safe)
        if (static_cast<unsigned char>(character) < 0x20 || std::strchr("/\\:*?\"<>|\x7F", character) != nullptr)
            character = '_';
    if (name.size() > maxNameBytes) {  // the cut may have gone through a character
        while (!safe.empty() && (static_cast<unsigned char>(safe.back()) & 0xC0U) == 0x80U) safe.pop_back();
        if (!safe.empty() && static_cast<unsigned char>(safe.back()) >= 0xC0U) safe.pop_back();
    }
    if (safe.empty() || safe == "." || safe == "..") return "torrent";
    return safe;
}

}  // namespace skein::TorrentFile
