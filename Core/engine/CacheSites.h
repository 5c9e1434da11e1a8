#pragma once

#include "Core/formats/TorrentMetaInfo.h"
#include "public/common/Bytes.h"
#include "public/common/FileLogger.h"
#include "public/common/HTTPFetcher.h"
#include "public/common/Notifier.h"
#include "public/common/SHA1.h"
#include "public/common/TaskGroup.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// Asks sites that keep `.torrent` files for the one of an info-hash, all at once; the first that has it wins.
///
/// Owner: the metadata search, which awaits `stop()`. Thread: the strand given.
class CacheSites {
public:
    static constexpr std::chrono::seconds timeout{15};
    /// A shorter body is an error page, whatever its status says.
    static constexpr std::size_t leastBodyBytes = 51;
    /// The templates used unless the user names others; "{HASH}" stands for the info-hash in upper-case hex.
    static const std::vector<std::string> torrentCacheSites;

    struct Environment {
        Strand strand;
        asio::any_io_executor disk;
        HTTPFetcher& http;
        FileLogger& log;
    };

    struct Torrent {
        Bytes data;
        std::shared_ptr<TorrentMetaInfo> metaInfo;
    };

    struct Result {
        std::optional<Torrent> torrent;
        bool hadUnusableBody = false;  ///< a site sent something, which was not this torrent
    };

    CacheSites(Environment environment, std::vector<std::string> templates, const SHA1Digest& infoHash);

    std::size_t count() const noexcept { return templates_.size(); }
    /// Returns when a site sent the torrent, or all have failed. Once.
    asio::awaitable<Result> fetchFromCacheSites();
    asio::awaitable<void> stop() { return tasks_.stop(); }

private:
    asio::awaitable<void> tryOne(std::string url);
    asio::awaitable<std::optional<HTTPResponse>> fetch(std::string url);
    asio::awaitable<void> judge(Bytes body);

    const Environment environment_;
    const std::vector<std::string> templates_;
    const SHA1Digest infoHash_;
    Result result_;
    std::size_t running_ = 0;
    Notifier changed_;
    TaskGroup tasks_;
};

}  // namespace skein
