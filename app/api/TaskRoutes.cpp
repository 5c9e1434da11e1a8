#include "app/api/TaskRoutes.h"

#include "app/RowJSON.h"
#include "downloads/TaskListJSON.h"
#include "public/common/ErrorText.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <algorithm>
#include <stdexcept>

namespace skein {

namespace {

namespace json = boost::json;

constexpr std::string_view torrentType = "application/x-bittorrent";
constexpr std::string_view magnetScheme = "magnet:";

HTTPServerResponse reply(const json::value& value) { return {200, "application/json", json::serialize(value), {}}; }

HTTPServerResponse done() { return reply(json::object{{"ok", true}}); }

/// The object that a body is. Throws std::exception with a text for the caller.
json::object objectIn(const HTTPServerRequest& request) {
    boost::system::error_code error;
    const json::value value = json::parse(request.body, error);
    if (error || !value.is_object()) throw std::runtime_error("the body is no JSON object");
    return value.as_object();
}

/// One character a piece: "1" for what is verified.
std::string bitmapText(const std::vector<bool>& bitmap) {
    std::string text(bitmap.size(), '0');
    for (std::size_t i = 0; i < bitmap.size(); ++i)
        if (bitmap[i]) text[i] = '1';
    return text;
}

json::object detailsOf(const TorrentTask& task) {
    json::object details = json::parse(taskAsJSON(task)).as_object();
    json::array files;
    for (const TorrentFileInfo& file : task.files())
        files.push_back(json::object{{"path", file.path}, {"size", file.size}, {"progress", task.fileProgress(file)}});
    json::array peers;
    for (const PeerRuntimeInfo& peer : task.peerDetails()) peers.push_back(toJSON(peer));
    json::array trackers;
    for (const TrackerRuntimeInfo& tracker : task.trackerDetails()) trackers.push_back(toJSON(tracker));
    details["files"] = std::move(files);
    details["peers"] = std::move(peers);
    details["trackers"] = std::move(trackers);
    details["pieceLength"] = task.pieceLength();
    details["pieceCount"] = task.pieceCount();
    details["pieceBitmap"] = bitmapText(task.pieceBitmap());
    details["comment"] = task.comment() ? json::value(*task.comment()) : json::value(nullptr);
    details["addedDate"] = secondsSince1970(task.addedDate());
    details["isVerifying"] = task.isVerifying();
    return details;
}

}  // namespace

TaskRoutes::TaskRoutes(DownloadManager& manager, std::function<void()> requestStop)
    : manager_(manager), requestStop_(std::move(requestStop)) {}

void TaskRoutes::addTo(Router& router) {
    const auto route = [&](std::string method, std::string path, auto handler) {
        router.add(std::move(method), std::move(path), [this, handler](std::string task, HTTPServerRequest request) {
            return (this->*handler)(std::move(task), std::move(request));
        });
    };
    route("GET", "/api/v1/tasks", &TaskRoutes::list);
    route("POST", "/api/v1/tasks", &TaskRoutes::add);
    route("GET", "/api/v1/tasks/{task}", &TaskRoutes::show);
    route("PATCH", "/api/v1/tasks/{task}", &TaskRoutes::change);
    route("DELETE", "/api/v1/tasks/{task}", &TaskRoutes::remove);
    route("GET", "/api/v1/status", &TaskRoutes::status);
    route("POST", "/api/v1/stop", &TaskRoutes::stop);
    addCommand(router, "pause", &DownloadManager::pauseTask);
    addCommand(router, "resume", &DownloadManager::resumeTask);
    addCommand(router, "verify", &DownloadManager::recheckTask);
    addCommand(router, "redownload", &DownloadManager::redownloadTask);
}

void TaskRoutes::addCommand(Router& router, const std::string& name, Command command) {
    router.add("POST", "/api/v1/tasks/{task}/" + name, [this, command](std::string task, const HTTPServerRequest&) {
        return perform(std::move(task), command);
    });
}

DownloadManager::Task TaskRoutes::find(const std::string& infoHash) const {
    const auto& tasks = manager_.tasks();
    const auto found = std::find_if(tasks.begin(), tasks.end(),
                                    [&](const DownloadManager::Task& task) { return task->infoHash == infoHash; });
    return found == tasks.end() ? nullptr : *found;
}

asio::awaitable<HTTPServerResponse> TaskRoutes::list(std::string, HTTPServerRequest) {
    std::string text = "[";
    for (const DownloadManager::Task& task : manager_.tasks()) {
        if (text.size() > 1) text += ',';
        text += taskAsJSON(*task);
    }
    text += ']';
    co_return HTTPServerResponse{200, "application/json", std::move(text), {}};
}

asio::awaitable<HTTPServerResponse> TaskRoutes::show(std::string infoHash, HTTPServerRequest) {
    const DownloadManager::Task task = find(infoHash);
    co_return task ? reply(detailsOf(*task)) : Router::error(404, "there is no such task");
}

/// The bytes of a `.torrent`, or an object with a `source`: a magnet link or a web address.
asio::awaitable<HTTPServerResponse> TaskRoutes::add(std::string, HTTPServerRequest request) {
    DownloadManager::Task task;
    std::string failure;
    try {
        if (request.header("content-type") == torrentType) {
            Bytes data = toBytes(request.body);
            task = co_await manager_.addTorrentFile(std::move(data));
        } else {
            const std::string source(objectIn(request).at("source").as_string());
            task = source.starts_with(magnetScheme) ? manager_.addMagnet(source) : manager_.addHTTPDownload(source);
        }
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    co_return task ? reply(detailsOf(*task)) : Router::error(400, failure);
}

asio::awaitable<HTTPServerResponse> TaskRoutes::perform(std::string infoHash, Command command) {
    const DownloadManager::Task task = find(infoHash);
    if (!task) co_return Router::error(404, "there is no such task");
    co_await (manager_.*command)(task);
    co_return reply(detailsOf(*task));
}

asio::awaitable<HTTPServerResponse> TaskRoutes::remove(std::string infoHash, HTTPServerRequest request) {
    const DownloadManager::Task task = find(infoHash);
    if (!task) co_return Router::error(404, "there is no such task");
    co_await manager_.removeTask(task, request.query["deleteFiles"] == "true");
    co_return done();
}

/// An object with any of `category`, `notes`, `accelerateEnabled`.
asio::awaitable<HTTPServerResponse> TaskRoutes::change(std::string infoHash, HTTPServerRequest request) {
    const DownloadManager::Task task = find(infoHash);
    if (!task) co_return Router::error(404, "there is no such task");
    try {
        const json::object changes = objectIn(request);
        if (const auto* const text = changes.if_contains("category")) {
            const auto category = researchCategoryFrom(std::string(text->as_string()));
            if (!category) throw std::runtime_error("there is no such category");
            manager_.setCategory(task, *category);
        }
        if (const auto* const notes = changes.if_contains("notes"))
            manager_.setNotes(task, std::string(notes->as_string()));
        if (const auto* const flag = changes.if_contains("accelerateEnabled"))
            manager_.setAccelerate(task, flag->as_bool());
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    co_return reply(detailsOf(*task));
}

asio::awaitable<HTTPServerResponse> TaskRoutes::status(std::string, HTTPServerRequest) {
    co_return reply(json::object{{"downloadSpeed", manager_.globalDownloadSpeed()},
                                 {"uploadSpeed", manager_.globalUploadSpeed()},
                                 {"tasks", manager_.tasks().size()}});
}

asio::awaitable<HTTPServerResponse> TaskRoutes::stop(std::string, HTTPServerRequest) {
    HTTPServerResponse answer = done();
    answer.afterwards = requestStop_;
    co_return answer;
}

}  // namespace skein
