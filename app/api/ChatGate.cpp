#include "app/api/ChatGate.h"

#include <utility>

namespace skein {

asio::awaitable<std::optional<HTTPServerResponse>> ChatGate::refusalWithoutAccount() {
    const std::string user = co_await chat_.user();
    if (user.empty()) co_return Router::error(409, "nobody is signed in");
    co_return std::nullopt;
}

asio::awaitable<std::optional<HTTPServerResponse>> ChatGate::refusal() {
    if (auto refused = co_await refusalWithoutAccount()) co_return refused;
    std::string server = co_await chat_.server();
    if (server.empty()) co_return Router::error(409, "chatServer not configured");
    co_await chat_.goTo(std::move(server));
    const bool hasLoggedIn = co_await chat_.client().waitForLogin(loginLimit);
    if (!hasLoggedIn) co_return Router::error(502, "the chat server cannot be reached, or refused the login");
    co_return std::nullopt;
}

asio::awaitable<bool> ChatGate::isIn() {
    std::string server = co_await chat_.server();
    if (server.empty()) co_return false;
    co_await chat_.goTo(std::move(server));
    co_return co_await chat_.client().waitForLogin(refreshLimit);
}

}  // namespace skein
