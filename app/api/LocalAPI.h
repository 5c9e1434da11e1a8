#pragma once

#include "app/api/APIGuard.h"
#include "app/api/EventStreams.h"
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
    /// `center` is the manager's; what is published there as APIEvent goes to the event streams.
    LocalAPI(DownloadManager& manager, MsgCenter& center, HTTPClient& http, Clock& clock, FileLogger& log,
             std::function<void()> requestStop);

    /// Listens; whoever has `token` may ask. Throws boost::system::system_error. Once.
    void listen(const std::string& address, std::uint16_t port, const std::string& token);
    std::uint16_t port() const noexcept { return server_.port(); }
    /// Before `listen`, for whatever else is to be asked here.
    Router& router() noexcept { return router_; }
    asio::awaitable<void> stop();

private:
    TaskRoutes tasks_;
    EventStreams events_;
    Router router_;
    std::optional<APIGuard> guard_;
    HTTPServer server_;
};

}  // namespace skein
