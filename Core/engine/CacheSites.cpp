#include "Core/engine/CacheSites.h"

#include "Core/engine/TorrentFile.h"
#include "Core/formats/TorrentParser.h"
#include "public/common/ErrorText.h"
#include "public/common/RunOn.h"

namespace skein {

namespace {

constexpr std::string_view placeholder = "{HASH}";
constexpr int httpOK = 200;

std::string filledIn(std::string url, const std::string& hash) {
    for (auto at = url.find(placeholder); at != std::string::npos; at = url.find(placeholder, at + hash.size()))
        url.replace(at, placeholder.size(), hash);
    return url;
}

}  // namespace

const std::vector<std::string> CacheSites::torrentCacheSites{
    "https://itorrents.org/torrent/{HASH}.torrent",
    "https://btcache.me/torrent/{HASH}.torrent",
    "https://torrage.info/{HASH}.torrent",
};

CacheSites::CacheSites(Environment environment, std::vector<std::string> templates, const SHA1Digest& infoHash)
    : environment_(std::move(environment)),
      templates_(std::move(templates)),
      infoHash_(infoHash),
      changed_(environment_.strand),
      tasks_(environment_.strand) {}

asio::awaitable<CacheSites::Result> CacheSites::fetchFromCacheSites() {
    const std::string hash = toUpperHex(infoHash_);
    running_ = templates_.size();
    for (const std::string& site : templates_) tasks_.spawn(tryOne(filledIn(site, hash)));
    while (running_ > 0 && !result_.torrent) co_await changed_.wait();
    co_await tasks_.stop();
    co_return std::move(result_);
}

asio::awaitable<void> CacheSites::tryOne(std::string url) {
    std::optional<HTTPResponse> response = co_await fetch(std::move(url));
    if (response) co_await judge(std::move(response->body));
    --running_;
    changed_.notify();
}

/// The answer when it is one to look into.
asio::awaitable<std::optional<HTTPResponse>> CacheSites::fetch(std::string url) {
    environment_.log.info("[Cache] Trying: ", url);
    HTTPRequest request;
    request.url = url;
    request.headers.push_back({"User-Agent", "Mozilla/5.0"});
    request.connectTimeout = request.totalTimeout = timeout;
    request.maxBodyBytes = TorrentFile::maxBytes;
    std::optional<HTTPResponse> response;
    std::string failure;
    try {
        response = co_await environment_.http.fetch(std::move(request));
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    if (!response) {
        if (!tasks_.isStopping()) environment_.log.info("[Cache] ", url, " → FAILED: ", failure);
        co_return std::nullopt;
    }
    const std::size_t size = response->body.size();
    if (response->status != httpOK || size < leastBodyBytes) {
        environment_.log.info("[Cache] ", url, " → HTTP ", response->status, ", ", size, " bytes (invalid)");
        co_return std::nullopt;
    }
    environment_.log.info("[Cache] ✅ ", url, " → ", size, " bytes");
    co_return response;
}

asio::awaitable<void> CacheSites::judge(Bytes body) {
    auto parse = [&]() -> std::shared_ptr<TorrentMetaInfo> {
        try {
            if (TorrentFile::faultOf(body)) return nullptr;
            auto metaInfo = std::make_shared<TorrentMetaInfo>(TorrentParser::parse(body));
            return metaInfo->infoHash == infoHash_ ? metaInfo : nullptr;
        } catch (const std::exception&) {
            return nullptr;
        }
    };
    std::shared_ptr<TorrentMetaInfo> metaInfo = co_await runOn(environment_.disk, std::move(parse));
    if (!metaInfo) {
        result_.hadUnusableBody = true;
    } else if (!result_.torrent) {
        result_.torrent.emplace(Torrent{std::move(body), std::move(metaInfo)});
    }
}

}  // namespace skein
