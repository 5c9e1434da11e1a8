#include "app/api/TaskRoutes.h"

#include "app/RowJSON.h"
#include "app/SourceKind.h"
#include "app/api/JSONBody.h"
#include "downloads/TaskListJSON.h"
#include "public/common/ErrorText.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>

#include <algorithm>
#include <stdexcept>

namespace skein {

namespace {

namespace json = boost::json;

constexpr std::string_view torrentType = "application/x-bittorrent";

/// One character a piece: "1" for what is verified.
std::string bitmapText(const std::vector<bool>& bitmap) {
    std::string text(bitmap.size(), '0');
    for (std::size_t i = 0; i < bitmap.size(); ++i)
        if (bitmap[i]) text[i] = '1';
    return text;
}

json::object detailsOf(const TorrentTask& task) {
    json::object details = taskAsObject(task);
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
    router.add("GET", "/api/v1/tasks", this, &TaskRoutes::list);
    router.add("POST", "/api/v1/tasks", this, &TaskRoutes::add);
    router.add("GET", "/api/v1/tasks/{task}", this, &TaskRoutes::show);
    router.add("PATCH", "/api/v1/tasks/{task}", this, &TaskRoutes::change);
    router.add("DELETE", "/api/v1/tasks/{task}", this, &TaskRoutes::remove);
    router.add("GET", "/api/v1/status", this, &TaskRoutes::status);
    router.add("POST", "/api/v1/stop", this, &TaskRoutes::stop);
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
    co_return HTTPServerResponse{200, "application/json", std::move(text)};
}

asio::awaitable<HTTPServerResponse> TaskRoutes::show(std::string infoHash, HTTPServerRequest) {
    const DownloadManager::Task task = find(infoHash);
    co_return task ? jsonReply(detailsOf(*task)) : Router::error(404, "there is no such task");
}

/// Where the new task is to go: `folder`, `output` and `overwrite` of the query. Throws std::runtime_error.
TaskPlace placeIn(HTTPServerRequest& request) {
    TaskPlace place{request.query["folder"], request.query["output"], request.query["overwrite"] == "true"};
    if (!place.folder.empty() && !place.folder.is_absolute())
        throw std::runtime_error("the folder is no absolute path");
    const bool isName = place.topName != "." && place.topName != ".." && place.topName.find('/') == std::string::npos;
    if (!isName) throw std::runtime_error("output is not the name of a file or folder");
    return place;
}

/// The bytes of a `.torrent`, or an object with a `source`: a magnet link or a web address.
asio::awaitable<HTTPServerResponse> TaskRoutes::add(std::string, HTTPServerRequest request) {
    DownloadManager::Task task;
    std::string failure;
    try {
        TaskPlace place = placeIn(request);
        if (request.header("content-type") == torrentType) {
            Bytes data = toBytes(request.body);
            task = co_await manager_.addTorrentFile(std::move(data), std::move(place));
        } else {
            const std::string source(objectIn(request).at("source").as_string());
            const bool isMagnet = sourceKindOf(source) == SourceKind::magnetLink;
            task = isMagnet ? manager_.addMagnet(source, std::move(place))
                            : manager_.addHTTPDownload(source, std::move(place));
        }
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    co_return task ? jsonReply(detailsOf(*task)) : Router::error(400, failure);
}

asio::awaitable<HTTPServerResponse> TaskRoutes::perform(std::string infoHash, Command command) {
    const DownloadManager::Task task = find(infoHash);
    if (!task) co_return Router::error(404, "there is no such task");
    const bool isDone = co_await (manager_.*command)(task);
    if (!isDone) co_return Router::error(409, "another command runs for this task");
    co_return jsonReply(detailsOf(*task));
}

asio::awaitable<HTTPServerResponse> TaskRoutes::remove(std::string infoHash, HTTPServerRequest request) {
    const DownloadManager::Task task = find(infoHash);
    if (!task) co_return Router::error(404, "there is no such task");
    co_await manager_.removeTask(task, request.query["deleteFiles"] == "true");
    co_return jsonDone();
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
    co_return jsonReply(detailsOf(*task));
}

asio::awaitable<HTTPServerResponse> TaskRoutes::status(std::string, HTTPServerRequest) {
    co_return jsonReply(json::object{{"downloadSpeed", manager_.globalDownloadSpeed()},
                                     {"uploadSpeed", manager_.globalUploadSpeed()},
                                     {"tasks", manager_.tasks().size()}});
}

asio::awaitable<HTTPServerResponse> TaskRoutes::stop(std::string, HTTPServerRequest) {
    HTTPServerResponse answer = jsonDone();
    answer.afterwards = requestStop_;
    co_return answer;
}

}  // namespace skein
