#include "Core/engine/TorrentArchive.h"

#include "Core/engine/TorrentFile.h"
#include "Core/formats/TorrentParser.h"
#include "public/common/PrivateFolder.h"
#include "public/common/WholeFile.h"

#include <system_error>

namespace skein {

namespace {

namespace fs = std::filesystem;

/// A resume record of a torrent with 1.6 million pieces in as many files is smaller.
constexpr std::size_t maxResumeRecordBytes = std::size_t{64} << 20U;
constexpr std::size_t maxPathBytes = 16'384;

std::optional<Bytes> readIfThere(const fs::path& file, std::size_t maxBytes) {
    try {
        return readWholeFile(file, maxBytes);
    } catch (const std::system_error&) {
        return std::nullopt;
    }
}

std::optional<Bytes> torrentIn(const fs::path& file, const SHA1Digest& infoHash) {
    std::optional<Bytes> data = readIfThere(file, TorrentFile::maxBytes);
    if (!data) return std::nullopt;
    try {
        if (TorrentParser::parse(*data).infoHash == infoHash) return data;
    } catch (const std::exception&) {
        // A damaged file is as good as none.
    }
    return std::nullopt;
}

}  // namespace

fs::path TorrentArchive::copyOf(const SHA1Digest& infoHash) const {
    return home_ / "torrents" / (toHex(infoHash) + ".torrent");
}
fs::path TorrentArchive::markOf(const SHA1Digest& infoHash) const {
    return home_ / "torrents" / (toHex(infoHash) + ".saved-as");
}
fs::path TorrentArchive::resumeRecordOf(const SHA1Digest& infoHash) const {
    return home_ / "resume" / (toHex(infoHash) + ".torrent-resume");
}

fs::path TorrentArchive::save(const SHA1Digest& infoHash, const fs::path& folder, std::string_view name,
                              ByteView data) const {
    const TorrentFile::Saved saved = TorrentFile::save(folder, name, data);
    createPrivateFolder(home_ / "torrents");
    if (saved.isNew) replaceWholeFile(markOf(infoHash), asBytes(fs::absolute(saved.path).string()));
    return saved.path;
}

void TorrentArchive::keep(const SHA1Digest& infoHash, ByteView data) const {
    createPrivateFolder(home_ / "torrents");
    replaceWholeFile(copyOf(infoHash), data);
}

std::optional<Bytes> TorrentArchive::torrent(const SHA1Digest& infoHash) const {
    return torrentIn(copyOf(infoHash), infoHash);
}

std::optional<Bytes> TorrentArchive::torrent(const SHA1Digest& infoHash, const fs::path& folder,
                                             std::string_view name) const {
    if (auto copy = torrent(infoHash)) return copy;
    return torrentIn(folder / (TorrentFile::safeFileName(name) + ".torrent"), infoHash);
}

Bytes TorrentArchive::resumeRecord(const SHA1Digest& infoHash) const {
    return readIfThere(resumeRecordOf(infoHash), maxResumeRecordBytes).value_or(Bytes());
}

void TorrentArchive::saveResumeRecord(const SHA1Digest& infoHash, ByteView record) const {
    const fs::path file = resumeRecordOf(infoHash);
    createPrivateFolder(file.parent_path());
    replaceWholeFile(file, record);
}

void TorrentArchive::forgetResumeRecord(const SHA1Digest& infoHash) const {
    std::error_code ignored;
    fs::remove(resumeRecordOf(infoHash), ignored);
}

void TorrentArchive::forget(const SHA1Digest& infoHash) const {
    std::error_code ignored;
    const auto mark = readIfThere(markOf(infoHash), maxPathBytes);
    const auto copy = readIfThere(copyOf(infoHash), TorrentFile::maxBytes);
    if (mark && copy) {
        const fs::path written{std::string(asText(*mark))};
        if (readIfThere(written, TorrentFile::maxBytes) == copy) fs::remove(written, ignored);
    }
    fs::remove(copyOf(infoHash), ignored);
    fs::remove(markOf(infoHash), ignored);
    forgetResumeRecord(infoHash);
}

}  // namespace skein
