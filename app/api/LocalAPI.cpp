#include "app/api/LocalAPI.h"

namespace skein {

LocalAPI::LocalAPI(DownloadManager& manager, Clock& clock, FileLogger& log, std::function<void()> requestStop)
    : tasks_(manager, std::move(requestStop)),
      server_(manager.strand(), clock, log, [this](HTTPServerRequest request) { return answer(std::move(request)); }) {
    tasks_.addTo(router_);
}

void LocalAPI::listen(const std::string& address, std::uint16_t port, const std::string& token) {
    server_.listen(address, port);
    guard_.emplace(token, address, server_.port());
}

asio::awaitable<HTTPServerResponse> LocalAPI::answer(HTTPServerRequest request) {
    // A client may be quicker than the guard; it gets nothing.
    if (!guard_) co_return Router::error(503, "not ready yet");
    if (auto refusal = guard_->refusalOf(request)) co_return std::move(*refusal);
    asio::awaitable<HTTPServerResponse> work = router_.answer(std::move(request));
    co_return co_await std::move(work);
}

}  // namespace skein
