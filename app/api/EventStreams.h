#pragma once

#include "app/api/Router.h"
#include "app/api/TaskChangeFeed.h"
#include "app/api/TaskJournal.h"
#include "downloads/DownloadManager.h"
#include "public/common/MsgCenter/MsgCenter.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"

#include <chrono>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace skein {

/// `GET /api/v1/events`: what happens to the tasks, to all who listen, as it happens (docs/api.md). While nobody does,
/// it costs nothing.
///
/// Owner: the daemon, which stops the server before this. Thread: the manager's strand.
class EventStreams {
public:
    static constexpr std::size_t maxStreams = 16;
    /// A task is looked at no more often: people do not read faster.
    static constexpr std::chrono::milliseconds interval{250};

    /// `center` is the manager's.
    EventStreams(DownloadManager& manager, MsgCenter& center, Clock& clock);
    ~EventStreams();

    void addTo(Router& router);
    asio::awaitable<void> stop();

private:
    /// One reader, from its request to its end.
    class Stream;

    asio::awaitable<HTTPServerResponse> answer(std::string task, HTTPServerRequest request);
    static asio::awaitable<void> serve(ServerSocket& socket, std::shared_ptr<Stream> stream);
    void enter(Stream& stream);
    void leave(Stream& stream);

    void onChanged(const UUID& id);
    void touch(const std::string& infoHash);
    void tell(const TaskChangeFeed::Event& event);
    void take(const DownloadManager::Task& task);
    asio::awaitable<void> look();

    DownloadManager& manager_;
    MsgCenter& center_;
    Clock& clock_;
    TaskJournal journal_;
    std::list<Stream*> streams_;
    std::set<UUID> changed_;  // since they were last looked at
    bool isLooking_ = false;  // look() runs
    std::vector<Subscription> subscriptions_;
    TaskGroup tasks_;
};

}  // namespace skein
