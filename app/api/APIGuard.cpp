#include "app/api/APIGuard.h"

#include "app/api/Router.h"

#include <boost/asio/ip/address.hpp>

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

APIGuard::APIGuard(std::string token, const std::string& address, std::uint16_t port)
    : token_(std::move(token)),
      suffix_(":" + std::to_string(port)),
      isEverywhere_(asio::ip::make_address(address).is_unspecified()) {
    const bool isIPv6 = address.find(':') != std::string::npos;
    hosts_ = {(isIPv6 ? "[" + address + "]" : address) + suffix_, "localhost" + suffix_, "127.0.0.1" + suffix_,
              "[::1]" + suffix_};
}

bool APIGuard::isOurs(std::string_view hostAndPort) const {
    if (std::find(hosts_.begin(), hosts_.end(), hostAndPort) != hosts_.end()) return true;
    if (!isEverywhere_ || !hostAndPort.ends_with(suffix_)) return false;
    // Which addresses the machine has changes; but whoever names it by a number was not misled by a name.
    std::string_view host = hostAndPort.substr(0, hostAndPort.size() - suffix_.size());
    const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (isBracketed) host = host.substr(1, host.size() - 2);
    boost::system::error_code error;
    const auto literal = asio::ip::make_address(std::string(host), error);
    return !error && literal.is_v6() == isBracketed;
}

/// `host` is ours. Another literal on our port may be another machine.
bool APIGuard::isSameSite(std::string_view origin, std::string_view host) const {
    constexpr std::string_view scheme = "http://";
    if (!origin.starts_with(scheme)) return false;
    origin.remove_prefix(scheme.size());
    return origin == host || std::find(hosts_.begin(), hosts_.end(), origin) != hosts_.end();
}

bool APIGuard::knowsToken(const HTTPServerRequest& request) const {
    constexpr std::string_view scheme = "Bearer ";
    const std::string_view credentials = request.header("authorization");
    if (credentials.starts_with(scheme)) return isSame(credentials.substr(scheme.size()), token_);
    if (!request.isUpgrade || request.path != streamPath) return false;
    const auto given = request.query.find("token");
    return given != request.query.end() && isSame(given->second, token_);
}

std::optional<HTTPServerResponse> APIGuard::refusalOf(const HTTPServerRequest& request) const {
    const std::string_view host = request.header("host");
    if (!isOurs(host)) return Router::error(403, "not a name of this daemon");
    const std::string_view origin = request.header("origin");
    if (!origin.empty() && !isSameSite(origin, host)) return Router::error(403, "not for pages of other sites");
    if (!knowsToken(request)) return Router::error(401, "the token is missing or wrong");
    return std::nullopt;
}

}  // namespace skein
