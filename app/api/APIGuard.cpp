#include "app/api/APIGuard.h"

#include "app/api/Router.h"

#include <algorithm>

namespace skein {

namespace {

/// Takes as long for a near miss as for a wild guess.
bool isSame(std::string_view given, std::string_view expected) {
    unsigned difference = given.size() == expected.size() ? 0U : 1U;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const char character = i < given.size() ? given[i] : '\0';
        difference |= static_cast<unsigned char>(character) ^ static_cast<unsigned char>(expected[i]);
    }
    return difference == 0;
}

}  // namespace

APIGuard::APIGuard(std::string token, const std::string& address, std::uint16_t port) : token_(std::move(token)) {
    const std::string suffix = ":" + std::to_string(port);
    const bool isIPv6 = address.find(':') != std::string::npos;
    hosts_ = {(isIPv6 ? "[" + address + "]" : address) + suffix, "localhost" + suffix, "127.0.0.1" + suffix,
              "[::1]" + suffix};
}

bool APIGuard::isOurs(std::string_view hostAndPort) const {
    return std::find(hosts_.begin(), hosts_.end(), hostAndPort) != hosts_.end();
}

std::optional<HTTPServerResponse> APIGuard::refusalOf(const HTTPServerRequest& request) const {
    constexpr std::string_view scheme = "Bearer ";
    constexpr std::string_view ourOrigin = "http://";
    if (!isOurs(request.header("host"))) return Router::error(403, "not a name of this daemon");
    std::string_view origin = request.header("origin");
    if (!origin.empty()) {
        const bool isHTTP = origin.starts_with(ourOrigin);
        origin.remove_prefix(isHTTP ? ourOrigin.size() : 0);
        if (!isHTTP || !isOurs(origin)) return Router::error(403, "not for pages of other sites");
    }
    std::string_view credentials = request.header("authorization");
    if (!credentials.starts_with(scheme)) return Router::error(401, "the token is missing");
    credentials.remove_prefix(scheme.size());
    if (!isSame(credentials, token_)) return Router::error(401, "the token is wrong");
    return std::nullopt;
}

}  // namespace skein
