#pragma once

#include "Core/formats/TorrentMetaInfo.h"
#include "Core/wire/BlockRequest.h"
#include "tests/support/TemporaryFolder.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace skein {

/// A torrent with its content.
struct TestTorrent {
    using Files = std::vector<std::pair<std::string, std::int64_t>>;

    /// Content is random unless `fill` says which byte it is made of.
    TestTorrent(std::int64_t pieceLength, const Files& files, std::optional<std::uint8_t> fill = std::nullopt) {
        for (const auto& [path, size] : files) {
            metaInfo->files.edit().push_back({path, size, metaInfo->totalSize});
            metaInfo->totalSize += size;
        }
        std::mt19937_64 random(42);
        content.resize(static_cast<std::size_t>(metaInfo->totalSize));
        for (std::uint8_t& byte : content) byte = fill ? *fill : static_cast<std::uint8_t>(random());
        metaInfo->pieceLength = pieceLength;
        for (std::int64_t at = 0; at < metaInfo->totalSize; at += pieceLength) {
            const SHA1Digest hash = sha1(bytes(at, std::min(pieceLength, metaInfo->totalSize - at)));
            metaInfo->pieces.insert(metaInfo->pieces.end(), hash.begin(), hash.end());
        }
    }

    ByteView bytes(std::int64_t offset, std::int64_t length) const {
        return ByteView(content).subspan(static_cast<std::size_t>(offset), static_cast<std::size_t>(length));
    }
    ByteView piece(int index) const { return bytes(index * metaInfo->pieceLength, metaInfo->pieceSize(index)); }
    Bytes block(const BlockRequest& which) const {
        return toBytes(asText(bytes(which.pieceIndex * metaInfo->pieceLength + which.begin, which.length)));
    }

    /// Puts the torrent's files below `folder`.
    void writeTo(const std::filesystem::path& folder) const {
        for (const TorrentFileInfo& file : metaInfo->files) {
            std::filesystem::create_directories((folder / file.path).parent_path());
            std::ofstream(folder / file.path, std::ios::binary) << asText(bytes(file.offset, file.size));
        }
    }
    bool isWholeIn(const std::filesystem::path& folder) const {
        return std::ranges::all_of(metaInfo->files, [&](const TorrentFileInfo& file) {
            return contentOf(folder / file.path) == toBytes(asText(bytes(file.offset, file.size)));
        });
    }
    static Bytes contentOf(const std::filesystem::path& file) {
        std::ifstream stream(file, std::ios::binary);
        Bytes content(std::istreambuf_iterator<char>(stream), {});
        return content;
    }

    std::shared_ptr<TorrentMetaInfo> metaInfo = std::make_shared<TorrentMetaInfo>();
    Bytes content;
};

}  // namespace skein
