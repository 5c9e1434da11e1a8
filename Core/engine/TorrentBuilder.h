#pragma once

#include "Core/engine/FileCalls.h"
#include "Core/engine/TorrentBuildError.h"
#include "Core/formats/TorrentMetaInfo.h"

#include <boost/asio/any_io_executor.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <stop_token>
#include <string>

namespace skein {

namespace asio = boost::asio;

/// Describes a file or folder on disk as a torrent: lists its files, then hashes their pieces.
///
/// A link named as the source is followed; inside a folder links are left out, as are devices and the like. Owner: who
/// makes the torrent. Thread: one, none of a pool's. Throws TorrentBuildException.
class TorrentBuilder {
public:
    /// Piece lengths that deployed programs take, and that we offer by ourselves.
    static constexpr std::int64_t minPieceLength = std::int64_t{16} << 10U;
    static constexpr std::int64_t maxPieceLength = std::int64_t{64} << 20U;
    static constexpr std::int64_t maxDefaultPieceLength = std::int64_t{16} << 20U;
    /// Their hashes fill the 32 MiB that peers accept as an info dictionary, but for room for some files.
    static constexpr std::int64_t maxPieces = 1'600'000;

    struct Options {
        std::filesystem::path source;
        std::optional<std::int64_t> pieceLength;  ///< bytes, a power of two within the limits; else chosen by the size
        std::filesystem::path leftOut;            ///< a file that is not to be in the torrent: the one to be written
    };

    /// Lists the files, sorted by their paths. Blocks.
    explicit TorrentBuilder(const Options& options, FileCalls& calls = FileCalls::real());

    /// All but the hashes, once they are there those too.
    const TorrentMetaInfo& torrent() const noexcept { return torrent_; }
    /// Links and other things inside the folder that are no files.
    int leftOutCount() const noexcept { return leftOutCount_; }

    /// Reads and hashes all pieces on `disk`, in as many jobs as the pools have threads, and returns when they are
    /// done; `onProgress` is called meanwhile, a few times a second, with the bytes done. Blocks.
    void hashPieces(const asio::any_io_executor& disk, const std::stop_token& stop,
                    const std::function<void(std::int64_t hashedBytes)>& onProgress);

    /// Power of two that makes at most about 2000 pieces, within the limits.
    static std::int64_t defaultPieceLength(std::int64_t totalSizeBytes) noexcept;

private:
    class Hashing;

    void listFolder(const std::filesystem::path& source, const std::filesystem::path& leftOut);
    void addFile(std::string path, std::uintmax_t sizeBytes);
    void layOut();

    FileCalls& calls_;
    std::filesystem::path folder_;  ///< the files' paths begin here
    TorrentMetaInfo torrent_;
    int leftOutCount_ = 0;
};

}  // namespace skein
