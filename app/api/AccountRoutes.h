#pragma once

#include "app/api/Router.h"
#include "service/SkeinServiceClient.h"

#include <boost/json/fwd.hpp>

#include <functional>

namespace skein {

class DownloadManager;

/// What the local API offers of the account at the resource service, under /api/v1/account and /api/v1/wallet
/// (docs/api.md).
///
/// Owner: the daemon, or a command that works without one and then has no manager. Thread: the manager's strand.
class AccountRoutes {
public:
    /// `onChanged` is told when somebody signed in or out.
    AccountRoutes(SkeinServiceClient& service, ServiceAccount account, DownloadManager* manager,
                  std::function<void()> onChanged);

    void addTo(Router& router);

private:
    asio::awaitable<HTTPServerResponse> show(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> login(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> logout(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> balance(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> pending(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> transactions(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> settle(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> transfer(std::string task, HTTPServerRequest request);

    /// 409 with the reason while the service cannot be asked.
    asio::awaitable<std::optional<HTTPServerResponse>> refusal();
    asio::awaitable<boost::json::object> account();
    asio::awaitable<void> signOut();

    SkeinServiceClient& service_;
    const ServiceAccount account_;
    DownloadManager* const manager_;
    const std::function<void()> onChanged_;
};

}  // namespace skein
