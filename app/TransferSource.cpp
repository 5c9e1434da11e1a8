#include "app/TransferSource.h"

#include "Core/engine/TorrentFile.h"
#include "Core/formats/MagnetParser.h"
#include "app/Command.h"
#include "app/EngineHost.h"
#include "public/common/WholeFile.h"

#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <system_error>

namespace skein {

namespace {

constexpr int httpOK = 200;

bool isHTTP(const std::string& source) { return source.starts_with("http://") || source.starts_with("https://"); }

bool isMagnet(const std::string& source) {
    constexpr std::string_view scheme = "magnet:";
    return source.size() >= scheme.size() &&
           std::equal(scheme.begin(), scheme.end(), source.begin(), [](char expected, char given) {
               return expected == std::tolower(static_cast<unsigned char>(given));
           });
}

bool pathEndsInTorrent(const std::string& url) { return url.substr(0, url.find_first_of("?#")).ends_with(".torrent"); }

Bytes fetch(const std::string& url, EngineHost& host) {
    HTTPRequest request;
    request.url = url;
    request.maxBodyBytes = TorrentFile::maxBytes;
    HTTPResponse response;
    try {
        response = asio::co_spawn(host.pools().io(), host.http().fetch(std::move(request)), asio::use_future).get();
    } catch (const std::exception& error) {
        throw CommandFailure(url, error.what());
    }
    if (response.status != httpOK) throw CommandFailure(url, "HTTP " + std::to_string(response.status));
    return std::move(response.body);
}

MagnetLink parseMagnet(const std::string& source) {
    try {
        return MagnetParser::parse(source);
    } catch (const std::exception& error) {
        throw CommandFailure(source, error.what());
    }
}

}  // namespace

TransferSource readTransferSource(const std::string& source, EngineHost& host) {
    if (isHTTP(source)) {
        if (!pathEndsInTorrent(source)) return WebFile{source};
        return fetch(source, host);
    }
    if (isMagnet(source)) return parseMagnet(source);
    try {
        return readWholeFile(source, TorrentFile::maxBytes);
    } catch (const std::system_error& error) {
        throw CommandFailure(source, error.code().message());
    }
}

}  // namespace skein
