#pragma once

#include "Core/engine/PieceSet.h"
#include "Core/engine/TorrentStorage.h"
#include "Core/formats/TorrentMetaInfo.h"
#include "public/common/FileLogger.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>

#include <cstddef>
#include <vector>

namespace skein {

namespace asio = boost::asio;

/// Sees to it that what a download wrote is on the device, and is what it wrote.
///
/// Owner: PieceManager. Thread: its strand; the work is done on the disk pool.
class StorageAssurance {
public:
    struct Environment {
        asio::any_io_executor disk;
        FileLogger& log;
    };

    /// `metaInfo` and `storage` outlive it.
    StorageAssurance(const TorrentMetaInfo& metaInfo, TorrentStorage& storage, const Environment& environment)
        : metaInfo_(metaInfo), storage_(storage), environment_(environment) {}

    /// Puts on the device what was written since the last time. Throws StorageException; what could not be synced is
    /// then in doubt.
    asio::awaitable<void> sync();
    /// Hashes the `completed` pieces of the files in doubt again, as they are on the device. Those that are wrong.
    asio::awaitable<PieceSet> wrongPieces(const PieceSet& completed);

private:
    PieceSet piecesOf(const std::vector<std::size_t>& files, const PieceSet& completed) const;

    const TorrentMetaInfo& metaInfo_;
    TorrentStorage& storage_;
    const Environment environment_;
};

}  // namespace skein
