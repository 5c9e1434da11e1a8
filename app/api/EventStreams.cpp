#include "app/api/EventStreams.h"

#include "app/api/APIEvent.h"
#include "app/api/APIGuard.h"
#include "downloads/TaskChanged.h"
#include "downloads/TaskListChanged.h"
#include "downloads/TaskListJSON.h"
#include "public/common/PlainJSON.h"

#include <boost/json/object.hpp>

#include <utility>

namespace skein {

namespace json = boost::json;

class EventStreams::Stream {
public:
    explicit Stream(EventStreams& owner) : feed(owner.journal_), news(owner.tasks_.strand()), owner_(owner) {
        owner_.enter(*this);
    }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() { owner_.leave(*this); }

    TaskChangeFeed feed;
    Notifier news;

private:
    EventStreams& owner_;
};

EventStreams::EventStreams(DownloadManager& manager, MsgCenter& center, Clock& clock)
    : manager_(manager), center_(center), clock_(clock), tasks_(manager.strand()) {}

EventStreams::~EventStreams() = default;

void EventStreams::addTo(Router& router) {
    router.add("GET", APIGuard::streamPath, [this](std::string task, HTTPServerRequest request) {
        return answer(std::move(task), std::move(request));
    });
}

asio::awaitable<void> EventStreams::stop() { return tasks_.stop(); }

asio::awaitable<HTTPServerResponse> EventStreams::answer(std::string, HTTPServerRequest request) {
    if (!request.isUpgrade) co_return Router::error(426, "this address is a websocket");
    if (streams_.size() >= maxStreams) co_return Router::error(503, "too many listen already");
    HTTPServerResponse response;
    response.socket = [stream = std::make_shared<Stream>(*this)](ServerSocket& socket) {
        return serve(socket, stream);
    };
    co_return response;
}

asio::awaitable<void> EventStreams::serve(ServerSocket& socket, std::shared_ptr<Stream> stream) {
    for (;;) {
        while (auto message = stream->feed.next()) co_await socket.send(std::move(*message));
        co_await stream->news.wait();
    }
}

/// The first one has us look, the last one lets us rest.
void EventStreams::enter(Stream& stream) {
    streams_.push_back(&stream);
    if (streams_.size() > 1) return;
    for (const DownloadManager::Task& task : manager_.tasks()) take(task);
    const Strand& strand = tasks_.strand();
    subscriptions_.push_back(
        center_.subscribe<TaskChanged>(strand, [this](const TaskChanged& change) { onChanged(change.id); }));
    subscriptions_.push_back(center_.subscribe<TaskListChanged>(strand, [this](const TaskListChanged& change) {
        if (change.kind == TaskListChanged::Kind::removed) {
            journal_.remove(change.infoHash);
        } else {
            for (const DownloadManager::Task& task : manager_.tasks())
                if (task->id == change.id) take(task);
        }
        touch(change.infoHash);
    }));
    subscriptions_.push_back(center_.subscribe<DownloadCompleted>(strand, [this](const DownloadCompleted& completed) {
        const json::object event{{"type", "completed"}, {"infoHash", completed.infoHash}, {"name", completed.name}};
        tell(std::make_shared<const std::string>(plainJSON(event)));
    }));
    subscriptions_.push_back(center_.subscribe<APIEvent>(strand, [this](const APIEvent& event) { tell(event.json); }));
}

void EventStreams::leave(Stream& stream) {
    streams_.remove(&stream);
    if (!streams_.empty()) return;
    subscriptions_.clear();
    changed_.clear();
    journal_ = {};
}

void EventStreams::take(const DownloadManager::Task& task) {
    if (journal_.put(task->infoHash, taskAsObject(*task))) touch(task->infoHash);
}

void EventStreams::touch(const std::string& infoHash) {
    for (Stream* const stream : streams_) {
        stream->feed.touch(infoHash);
        stream->news.notify();
    }
}

void EventStreams::tell(const TaskChangeFeed::Event& event) {
    for (Stream* const stream : streams_) {
        stream->feed.add(event);
        stream->news.notify();
    }
}

void EventStreams::onChanged(const UUID& id) {
    changed_.insert(id);
    if (!std::exchange(isLooking_, true)) tasks_.spawn(look());
}

/// At once after a quiet time, then once an interval while changes go on.
asio::awaitable<void> EventStreams::look() {
    while (!changed_.empty()) {
        const std::set<UUID> changed = std::exchange(changed_, {});
        for (const DownloadManager::Task& task : manager_.tasks())
            if (changed.contains(task->id)) take(task);
        co_await clock_.sleep(interval);
    }
    isLooking_ = false;
}

}  // namespace skein
