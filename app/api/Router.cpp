#include "app/api/Router.h"

#include "public/common/PlainJSON.h"

#include <boost/json/object.hpp>
#include <boost/url/pct_string_view.hpp>

#include <optional>
#include <string_view>

namespace skein {

namespace {

/// What stands for the variable in `path`; nothing when it does not have the pattern's form.
std::optional<std::string> matched(std::string_view pattern, std::string_view path) {
    const auto at = pattern.find('{');
    if (at == std::string_view::npos) return pattern == path ? std::optional(std::string()) : std::nullopt;
    const std::string_view before = pattern.substr(0, at);
    const std::string_view after = pattern.substr(pattern.find('}', at) + 1);
    if (path.size() <= before.size() + after.size() || !path.starts_with(before) || !path.ends_with(after))
        return std::nullopt;
    const std::string_view found = path.substr(before.size(), path.size() - before.size() - after.size());
    if (found.find('/') != std::string_view::npos) return std::nullopt;
    const auto encoded = boost::urls::make_pct_string_view(boost::core::string_view(found.data(), found.size()));
    return encoded ? std::optional(encoded->decode()) : std::nullopt;
}

}  // namespace

void Router::add(std::string method, std::string path, Handler handler) {
    routes_.push_back({std::move(method), std::move(path), std::move(handler)});
}

asio::awaitable<HTTPServerResponse> Router::answer(HTTPServerRequest request) const {
    bool isKnownPath = false;
    for (const Route& route : routes_) {
        auto task = matched(route.path, request.path);
        if (!task) continue;
        isKnownPath = true;
        if (route.method != request.method) continue;
        asio::awaitable<HTTPServerResponse> answer = route.handler(std::move(*task), std::move(request));
        co_return co_await std::move(answer);
    }
    co_return isKnownPath ? error(405, "this address does not take the method")
                          : error(404, "there is no such address");
}

HTTPServerResponse Router::error(int status, std::string_view text) {
    return {status, "application/json", plainJSON(boost::json::object{{"error", text}})};
}

}  // namespace skein
