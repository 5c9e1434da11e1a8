#include "app/TorrentFetch.h"

#include "Core/engine/TorrentFile.h"

#include <stdexcept>
#include <utility>

namespace skein {

namespace {

constexpr int httpOK = 200;

}  // namespace

asio::awaitable<Bytes> fetchTorrent(HTTPClient& http, std::string url) {
    HTTPRequest request;
    request.url = std::move(url);
    request.maxBodyBytes = TorrentFile::maxBytes;
    HTTPResponse response = co_await http.fetch(std::move(request));
    if (response.status != httpOK) throw std::runtime_error("HTTP " + std::to_string(response.status));
    co_return std::move(response.body);
}

}  // namespace skein
