#include "app/api/LocalAPI.h"

namespace skein {

LocalAPI::LocalAPI(DownloadManager& manager, MsgCenter& center, HTTPClient& http, Clock& clock, FileLogger& log,
                   std::function<void()> requestStop)
    : tasks_(manager, http, std::move(requestStop)),
      events_(manager, center, clock),
      server_(manager.strand(), clock, log,
              {[this](const HTTPServerRequest& request) { return guard_->refusalOf(request); },
               [this](HTTPServerRequest request) { return router_.answer(std::move(request)); }}) {
    tasks_.addTo(router_);
    events_.addTo(router_);
}

void LocalAPI::listen(const std::string& address, std::uint16_t port, const std::string& token) {
    server_.bind(address, port);
    guard_.emplace(token, address, server_.port());  // which the strand looks at as soon as it accepts
    server_.accept();
}

asio::awaitable<void> LocalAPI::stop() {
    co_await server_.stop();
    co_await events_.stop();
}

}  // namespace skein
