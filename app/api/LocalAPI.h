#pragma once

#include "app/api/APIGuard.h"
#include "app/api/HTTPServer.h"
#include "app/api/Router.h"
#include "app/api/TaskRoutes.h"

#include <functional>
#include <optional>
#include <string>

namespace skein {

/// The daemon's local API: who may ask, what can be asked, and the server that both stand behind.
///
/// Owner: the daemon, which awaits `stop()` before the manager goes. Thread: the manager's strand.
class LocalAPI {
public:
    LocalAPI(DownloadManager& manager, Clock& clock, FileLogger& log, std::function<void()> requestStop);

    /// Listens; whoever has `token` may ask. Throws boost::system::system_error.
    void listen(const std::string& address, std::uint16_t port, const std::string& token);
    std::uint16_t port() const noexcept { return server_.port(); }
    const Router& router() const noexcept { return router_; }
    asio::awaitable<void> stop() { return server_.stop(); }

private:
    asio::awaitable<HTTPServerResponse> answer(HTTPServerRequest request);

    TaskRoutes tasks_;
    Router router_;
    std::optional<APIGuard> guard_;
    HTTPServer server_;
};

}  // namespace skein
