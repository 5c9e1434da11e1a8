#pragma once

#include "app/api/HTTPServer.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// Lets in only who was told the token, and only under our own name: a page of another site that a browser shows, or a
/// name that was pointed at this machine, gets nothing. Plain rules; any thread.
class APIGuard {
public:
    /// The one address that takes the token from its query, and that as a websocket: a page cannot set headers there,
    /// and addresses get into logs and histories.
    static constexpr const char* streamPath = "/api/v1/events";

    /// `address` and `port` are what the server listens on.
    APIGuard(std::string token, const std::string& address, std::uint16_t port);

    /// Why the request is refused; nothing when it may pass. The token is its header's, or at `streamPath` that of
    /// the query.
    std::optional<HTTPServerResponse> refusalOf(const HTTPServerRequest& request) const;

private:
    bool isOurs(std::string_view hostAndPort) const;
    bool isSameSite(std::string_view origin, std::string_view host) const;
    bool knowsToken(const HTTPServerRequest& request) const;

    const std::string token_;
    const std::string suffix_;        // ":7070"
    const bool isEverywhere_;         // every address of this machine is ours
    std::vector<std::string> hosts_;  // "127.0.0.1:7070" and the other names that mean us
};

}  // namespace skein
