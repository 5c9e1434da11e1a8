#pragma once

#include "app/api/Router.h"
#include "downloads/DownloadManager.h"
#include "public/common/HTTPClient.h"

#include <functional>

namespace skein {

/// What the local API offers of the download manager, under /api/v1/ (docs/api.md).
///
/// Owner: the daemon. Thread: the manager's strand.
class TaskRoutes {
public:
    /// A task may have a million files.
    static constexpr std::size_t filesPerPage = 1000;

    /// `requestStop` has the daemon end after the answer. `http` fetches the `.torrent`s that are named by an address.
    TaskRoutes(DownloadManager& manager, HTTPClient& http, std::function<void()> requestStop);

    void addTo(Router& router);

private:
    using Command = asio::awaitable<bool> (DownloadManager::*)(DownloadManager::Task);

    DownloadManager::Task find(const std::string& infoHash) const;
    void addCommand(Router& router, const std::string& name, Command command);

    asio::awaitable<DownloadManager::Task> addSource(std::string source, TaskPlace place);
    asio::awaitable<HTTPServerResponse> details(DownloadManager::Task task);
    asio::awaitable<HTTPServerResponse> savedDetails(DownloadManager::Task task);
    asio::awaitable<HTTPServerResponse> list(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> show(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> files(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> add(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> perform(std::string task, Command command);
    asio::awaitable<HTTPServerResponse> remove(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> change(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> status(std::string task, HTTPServerRequest request);
    asio::awaitable<HTTPServerResponse> stop(std::string task, HTTPServerRequest request);

    DownloadManager& manager_;
    HTTPClient& http_;
    const std::function<void()> requestStop_;
};

}  // namespace skein
