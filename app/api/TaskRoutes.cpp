#include "app/api/TaskRoutes.h"

#include "app/RowJSON.h"
#include "app/SourceKind.h"
#include "app/TorrentFetch.h"
#include "app/api/JSONBody.h"
#include "downloads/TaskListJSON.h"
#include "public/common/ErrorText.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>

#include <algorithm>
#include <charconv>
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

/// Throws std::runtime_error for what is no number.
std::size_t numberIn(HTTPServerRequest& request, const std::string& name, std::size_t unset) {
    const std::string& text = request.query[name];
    if (text.empty()) return unset;
    std::size_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size())
        throw std::runtime_error(name + " is no number: " + text);
    return number;
}

json::value textOrNull(const TorrentTask::Text& text) { return text ? json::value(*text) : json::value(nullptr); }

json::array tiersOf(const TorrentTask& task) {
    json::array tiers;
    for (const std::vector<std::string>& tier : task.trackers())
        tiers.emplace_back(json::array(tier.begin(), tier.end()));
    return tiers;
}

json::array rowsOf(const std::vector<DownloadManager::PlacedFile>& files) {
    json::array rows;
    for (const auto& [file, progress, place] : files)
        rows.push_back(json::object{{"path", file.path},
                                    {"size", file.size},
                                    {"offset", file.offset},
                                    {"progress", progress},
                                    {"location", place.url ? json::value(place.url->string()) : json::value(nullptr)},
                                    {"isAvailable", place.isAvailable}});
    return rows;
}

json::object detailsOf(const TorrentTask& task, const std::vector<DownloadManager::PlacedFile>& files) {
    json::object details = taskAsObject(task);
    json::array peers;
    for (const PeerRuntimeInfo& peer : task.peerDetails()) peers.push_back(toJSON(peer));
    json::array trackers;
    for (const TrackerRuntimeInfo& tracker : task.trackerDetails()) trackers.push_back(toJSON(tracker));
    details["files"] = rowsOf(files);
    details["fileCount"] = task.files().size();
    details["peers"] = std::move(peers);
    details["trackers"] = std::move(trackers);
    details["pieceLength"] = task.pieceLength();
    details["pieceCount"] = task.pieceCount();
    details["pieceBitmap"] = bitmapText(task.pieceBitmap());
    details["comment"] = textOrNull(task.comment());
    details["creationDate"] =
        task.creationDate() ? json::value(task.creationDate()->time_since_epoch().count()) : json::value(nullptr);
    details["trackerTiers"] = tiersOf(task);
    details["remainingTime"] = textOrNull(task.remainingTime());
    details["isVerifying"] = task.isVerifying();
    details["isControlOperationInProgress"] = task.isControlOperationInProgress();
    details["controlOperationMessage"] = textOrNull(task.controlOperationMessage());
    return details;
}

}  // namespace

TaskRoutes::TaskRoutes(DownloadManager& manager, HTTPClient& http, std::function<void()> requestStop)
    : manager_(manager), http_(http), requestStop_(std::move(requestStop)) {}

void TaskRoutes::addTo(Router& router) {
    router.add("GET", "/api/v1/tasks", this, &TaskRoutes::list);
    router.add("POST", "/api/v1/tasks", this, &TaskRoutes::add);
    router.add("GET", "/api/v1/tasks/{task}", this, &TaskRoutes::show);
    router.add("GET", "/api/v1/tasks/{task}/files", this, &TaskRoutes::files);
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
    if (!task) co_return Router::error(404, "there is no such task");
    co_return co_await details(task);
}

asio::awaitable<HTTPServerResponse> TaskRoutes::details(DownloadManager::Task task) {
    const std::vector<DownloadManager::PlacedFile> files = co_await manager_.placesOf(task, 0, filesPerPage);
    co_return jsonReply(detailsOf(*task, files));
}

/// `offset` and `limit` say which.
asio::awaitable<HTTPServerResponse> TaskRoutes::files(std::string infoHash, HTTPServerRequest request) {
    const DownloadManager::Task task = find(infoHash);
    if (!task) co_return Router::error(404, "there is no such task");
    std::size_t offset = 0;
    std::size_t limit = filesPerPage;
    try {
        offset = numberIn(request, "offset", offset);
        limit = std::clamp<std::size_t>(numberIn(request, "limit", limit), 1, filesPerPage);
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    const std::vector<DownloadManager::PlacedFile> page = co_await manager_.placesOf(task, offset, limit);
    co_return jsonReply(json::object{{"offset", offset}, {"fileCount", task->files().size()}, {"files", rowsOf(page)}});
}

HTTPServerResponse notSaved() {
    constexpr int insufficientStorage = 507;
    return Router::error(insufficientStorage, "the task list could not be saved, and may be lost with the daemon");
}

/// After a change, of which nobody is told before it is certain to last.
asio::awaitable<HTTPServerResponse> TaskRoutes::savedDetails(DownloadManager::Task task) {
    const bool isSaved = co_await manager_.whenSaved();
    if (!isSaved) co_return notSaved();
    co_return co_await details(task);
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
            std::string source(objectIn(request).at("source").as_string());
            task = co_await addSource(std::move(source), std::move(place));
        }
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    if (!task) co_return Router::error(400, failure);
    co_return co_await savedDetails(task);
}

asio::awaitable<DownloadManager::Task> TaskRoutes::addSource(std::string source, TaskPlace place) {
    switch (sourceKindOf(source)) {
        case SourceKind::magnetLink: co_return manager_.addMagnet(source, std::move(place));
        case SourceKind::webFile: break;
        case SourceKind::otherWeb:
        case SourceKind::file: throw std::runtime_error(std::string(unsupportedSource));
        case SourceKind::webTorrent: {
            Bytes data = co_await fetchTorrent(http_, source);
            co_return co_await manager_.addTorrentFile(std::move(data), std::move(place));
        }
    }
    if (!DownloadManager::isWebAddress(source)) throw std::runtime_error("Invalid URL");
    co_return manager_.addHTTPDownload(source, std::move(place));
}

asio::awaitable<HTTPServerResponse> TaskRoutes::perform(std::string infoHash, Command command) {
    const DownloadManager::Task task = find(infoHash);
    if (!task) co_return Router::error(404, "there is no such task");
    const bool isDone = co_await (manager_.*command)(task);
    if (!isDone) co_return Router::error(409, "another command runs for this task");
    co_return co_await savedDetails(task);
}

asio::awaitable<HTTPServerResponse> TaskRoutes::remove(std::string infoHash, HTTPServerRequest request) {
    const DownloadManager::Task task = find(infoHash);
    if (!task) co_return Router::error(404, "there is no such task");
    co_await manager_.removeTask(task, request.query["deleteFiles"] == "true");
    const bool isSaved = co_await manager_.whenSaved();
    co_return isSaved ? jsonDone() : notSaved();
}

/// What a PATCH asks for: nothing of it is done before all of it is understood.
struct TaskWish {
    std::optional<ResearchCategory> category;
    std::optional<std::string> notes;
    std::optional<bool> accelerateEnabled;
};

/// An object with any of `category`, `notes`, `accelerateEnabled`. Throws std::exception with a text for the caller.
TaskWish wishIn(const HTTPServerRequest& request) {
    const json::object changes = objectIn(request);
    TaskWish wish;
    if (const auto* const text = changes.if_contains("category")) {
        wish.category = researchCategoryFrom(std::string(text->as_string()));
        if (!wish.category) throw std::runtime_error("there is no such category");
    }
    if (const auto* const notes = changes.if_contains("notes")) wish.notes = std::string(notes->as_string());
    if (const auto* const flag = changes.if_contains("accelerateEnabled")) wish.accelerateEnabled = flag->as_bool();
    return wish;
}

asio::awaitable<HTTPServerResponse> TaskRoutes::change(std::string infoHash, HTTPServerRequest request) {
    const DownloadManager::Task task = find(infoHash);
    if (!task) co_return Router::error(404, "there is no such task");
    TaskWish wish;
    try {
        wish = wishIn(request);
    } catch (const std::exception& error) {
        co_return Router::error(400, textOf(error));
    }
    if (wish.category) manager_.setCategory(task, *wish.category);
    if (wish.notes) manager_.setNotes(task, *std::move(wish.notes));
    if (wish.accelerateEnabled) manager_.setAccelerate(task, *wish.accelerateEnabled);
    co_return co_await savedDetails(task);
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
