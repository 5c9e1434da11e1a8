#include "app/TransferSource.h"

#include "Core/formats/MagnetParser.h"
#include "app/Command.h"
#include "app/EngineHost.h"
#include "app/Interrupt.h"
#include "app/SourceKind.h"
#include "app/TorrentFetch.h"
#include "public/common/ErrorText.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>
#include <boost/system/system_error.hpp>

#include <functional>
#include <future>
#include <stop_token>

namespace skein {

namespace {

/// The bytes of a `.torrent`, or why there are none.
struct Fetched {
    std::optional<Bytes> torrent;
    std::string failure;
};

asio::awaitable<Fetched> tryToFetch(HTTPClient& http, std::string url) {
    Fetched fetched;
    try {
        fetched.torrent = co_await fetchTorrent(http, std::move(url));
    } catch (const std::exception& error) {
        fetched.failure = textOf(error);
    }
    co_return fetched;
}

/// Nothing when it was interrupted.
std::optional<Bytes> fetchUnlessInterrupted(const std::string& url, EngineHost& host, const Interrupt& interrupt) {
    TaskGroup tasks(host.pools().io());
    std::future<void> cancelled;
    std::optional<std::stop_callback<std::function<void()>>> onInterrupt(std::in_place, interrupt.token(), [&] {
        cancelled = asio::co_spawn(host.pools().io(), tasks.stop(), asio::use_future);
    });
    Fetched fetched;
    try {
        auto fetching = tasks.call(tryToFetch(host.http(), url));
        fetched = asio::co_spawn(host.pools().io(), std::move(fetching), asio::use_future).get();
    } catch (const boost::system::system_error&) {
        // Interrupted before it began.
    }
    onInterrupt.reset();
    if (cancelled.valid()) cancelled.get();
    asio::co_spawn(host.pools().io(), tasks.stop(), asio::use_future).get();
    if (!fetched.torrent && interrupt.exitStatus() == 0) throw CommandFailure(url, fetched.failure);
    return std::move(fetched.torrent);
}

MagnetLink parseMagnet(const std::string& source) {
    try {
        return MagnetParser::parse(source);
    } catch (const std::exception& error) {
        throw CommandFailure(source, error.what());
    }
}

}  // namespace

std::optional<std::vector<TransferSource>> readTransferSources(const std::vector<std::string>& names, EngineHost& host,
                                                               const Interrupt& interrupt) {
    std::vector<TransferSource> sources;
    for (const std::string& name : names) {
        switch (sourceKindOf(name)) {
            case SourceKind::magnetLink: sources.emplace_back(parseMagnet(name)); break;
            case SourceKind::webFile: sources.emplace_back(WebFile{name}); break;
            case SourceKind::otherWeb: throw CommandFailure(name, unsupportedSource);
            case SourceKind::file: sources.emplace_back(readTorrentFile(name)); break;
            case SourceKind::webTorrent:
                auto torrent = fetchUnlessInterrupted(name, host, interrupt);
                if (!torrent) return std::nullopt;
                sources.emplace_back(*std::move(torrent));
                break;
        }
    }
    return sources;
}

}  // namespace skein
