#pragma once

#include "tests/support/ScriptedHTTPServer.h"

#include <string>
#include <string_view>

namespace skein {

/// A server on loopback whose websockets do as the test's script says, and which has nothing else to offer.
class ScriptedWebSocketServer : public ScriptedHTTPServer {
public:
    using Script = Conversation;

    explicit ScriptedWebSocketServer(const asio::any_io_executor& pool, Script script, std::uint16_t port = 0)
        : ScriptedHTTPServer(
              pool, [](const SeenHTTPRequest&) { return HTTPReply::text("", 426); }, "127.0.0.1", port) {
        onUpgrade(std::move(script));
    }

    /// "ws://127.0.0.1:PORT" and `target`.
    std::string url(std::string_view target = "/") const { return "ws" + ScriptedHTTPServer::url(target).substr(4); }
};

}  // namespace skein
