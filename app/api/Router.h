#pragma once

#include "app/api/HTTPServer.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace skein {

/// Finds what answers a request: a method, and a path of which one component may be a variable ("{task}",
/// "{user}").
class Router {
public:
    /// `task` is what stood for the variable, percent-decoded; empty where there is none.
    using Handler = std::function<asio::awaitable<HTTPServerResponse>(std::string task, HTTPServerRequest request)>;

    struct Route {
        std::string method;
        std::string path;
        Handler handler;
    };

    void add(std::string method, std::string path, Handler handler);
    /// Answered by a member of `owner`, who outlives the router's use.
    template <class Owner>
    void add(std::string method, std::string path, Owner* owner,
             asio::awaitable<HTTPServerResponse> (Owner::*handler)(std::string task, HTTPServerRequest request)) {
        add(std::move(method), std::move(path), [owner, handler](std::string task, HTTPServerRequest request) {
            return (owner->*handler)(std::move(task), std::move(request));
        });
    }
    const std::vector<Route>& routes() const noexcept { return routes_; }
    /// 404 for a path that there is not, 405 for a method that it has not.
    asio::awaitable<HTTPServerResponse> answer(HTTPServerRequest request) const;

    static HTTPServerResponse error(int status, std::string_view text);

private:
    std::vector<Route> routes_;
};

}  // namespace skein
