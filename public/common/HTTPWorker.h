#pragma once

#include "public/common/HTTPClient.h"
#include "public/common/HTTPMessage.h"
#include "public/common/HTTPTransfer.h"

#include <boost/asio/io_context.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace skein {

/// A question to the worker on its way in and the answer on its way back; the coroutine holds it as long as it waits.
struct HTTPExchange {
    HTTPRequest request;
    std::vector<Bytes> chunks;  ///< in: whose memory may be used again; out: what was read
    HTTPOutcome outcome;        ///< neither response nor error: aborted, or `chunks` says it
    bool isAborted = true;      ///< until it is answered
};

/// HTTPClient's thread and what runs on it. Its mailbox is an io_context that only this thread polls.
///
/// Owner: the client and its streams. Thread: any; the transfers live on the worker's.
class HTTPWorker : public std::enable_shared_from_this<HTTPWorker> {
public:
    using Id = std::uint64_t;
    using Done = std::function<void()>;

    explicit HTTPWorker(HTTPClient::Options options);
    HTTPWorker(const HTTPWorker&) = delete;
    HTTPWorker& operator=(const HTTPWorker&) = delete;
    ~HTTPWorker();

    Id newId() noexcept { return ++lastId_; }

    /// Runs the exchange's request. `done` is called exactly once, on the worker's thread or, once it has stopped, on
    /// this one: when all of the response is there or, for `HTTPBody::streamed`, its head. `read` and `cancel` follow
    /// then.
    void begin(Id id, HTTPBody body, std::shared_ptr<HTTPExchange> exchange, Done done);
    /// Calls `done`, once, as soon as some of the body or its end is there. One at a time.
    void read(Id id, std::shared_ptr<HTTPExchange> exchange, Done done);
    /// Ends the transfer, if it still runs.
    void cancel(Id id);
    void stop();

private:
    struct Running {
        std::unique_ptr<HTTPTransfer> transfer;
        std::shared_ptr<HTTPExchange> exchange;  ///< of who waits
        Done done;                               ///< nothing: nobody waits
        NameLookups::Id lookup = 0;              ///< 0: the host need not be found
        std::chrono::steady_clock::time_point lookupEnds{};
    };
    using RunningMap = std::map<Id, Running>;

    void startOnce();
    template <class Message>
    void tell(Message message);
    void run();
    void work();
    void add(Id id, Running running);
    void start(RunningMap::iterator entry);
    void perform(RunningMap::iterator entry);
    void handleFound(Id id, NameLookups::Id lookup, const NameLookups::Addresses& addresses);
    void giveLookupsUp();
    int longestWaitMilliseconds() const;
    void endUnlessStreamed(RunningMap::iterator entry);
    void handleEnd(void* handle, int curlCode);
    void answerReaders(std::size_t leastBytes);
    void answerIfReady(RunningMap::iterator entry, std::size_t leastBytes);
    void finish(RunningMap::iterator entry);

    const HTTPClient::Options options_;
    boost::asio::io_context mailbox_{1};
    void* multi_ = nullptr;  // CURLM
    RunningMap running_;
    std::map<void*, Id> ids_;
    std::set<Id> readers_;  ///< streams that somebody waits for
    std::atomic<Id> lastId_{0};
    std::atomic<bool> isStopping_{false};
    std::mutex lifeMutex_;  ///< over the thread's start and end, which callers on several threads bring about
    std::thread thread_;
};

}  // namespace skein
