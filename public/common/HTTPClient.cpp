#include "public/common/HTTPClient.h"

#include "public/common/HTTPTransfer.h"

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/prefer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>
#include <curl/curl.h>

#include <atomic>
#include <csignal>
#include <map>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <utility>

namespace skein {

namespace {

/// Over the program; what goes beyond waits for its turn (and its time-out runs).
constexpr long maxConnections = 256;
/// Kept open for the next request.
constexpr long keptConnections = 32;
/// curl wakes up by its own timers and for what is posted; this is only an upper bound for it to be given.
constexpr int longestWaitMilliseconds = 3'600'000;

void initialiseCurl() {
    static const CURLcode done = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (done != CURLE_OK) throw std::runtime_error(curl_easy_strerror(done));
}

/// A thread that gets no signal: the program's handlers run elsewhere, and a broken TLS connection raises SIGPIPE.
template <class Work>
std::thread threadWithoutSignals(Work work) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread thread(std::move(work));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return thread;
}

/// A request on its way in and its outcome on its way back; the coroutine holds it as long as it waits.
struct Exchange {
    HTTPRequest request;
    HTTPOutcome outcome;
};

}  // namespace

std::string_view textOf(HTTPError error) noexcept {
    switch (error) {
        case HTTPError::invalidRequest: return "Not a valid HTTP request: ";
        case HTTPError::cannotResolve: return "The host was not found: ";
        case HTTPError::cannotConnect: return "The host cannot be reached: ";
        case HTTPError::timeout: return "The request timed out: ";
        case HTTPError::insecure: return "No secure connection: ";
        case HTTPError::bodyTooLarge: return "The response is too large: ";
        case HTTPError::tooManyRedirects: return "Too many redirects: ";
        case HTTPError::forbiddenRedirect: return "The redirect is not allowed: ";
        case HTTPError::transferFailed: break;
    }
    return "The transfer failed: ";
}

std::optional<std::string_view> HTTPResponse::header(std::string_view name) const noexcept {
    for (const HTTPHeader& candidate : headers)
        if (candidate.name == name) return candidate.value;
    return std::nullopt;
}

/// The thread and what runs on it. Its mailbox is an io_context that only this thread polls.
class HTTPClient::Worker {
public:
    using Id = std::uint64_t;

    explicit Worker(Options options) : options_(std::move(options)) {
        initialiseCurl();
        multi_ = curl_multi_init();
        if (multi_ == nullptr) throw std::bad_alloc();
        curl_multi_setopt(multi_, CURLMOPT_MAX_TOTAL_CONNECTIONS, maxConnections);
        curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, keptConnections);
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker() { curl_multi_cleanup(multi_); }

    Id newId() noexcept { return ++lastId_; }

    /// `done` is called exactly once, on the worker's thread or, once it has stopped, on this one.
    void begin(Id id, std::shared_ptr<Exchange> exchange, std::function<void()> done) {
        tell([this, id, exchange = std::move(exchange), done = std::move(done)] {
            add(id, Running{exchange, std::make_unique<HTTPTransfer>(std::move(exchange->request), options_), done});
        });
    }

    void cancel(Id id) {
        tell([this, id] { finish(running_.find(id)); });
    }

    void stop() {
        const std::lock_guard lock(lifeMutex_);
        isStopping_ = true;
        if (thread_.joinable()) {
            curl_multi_wakeup(multi_);
            thread_.join();
        }
        // Nobody else polls the mailbox now: what still lies in it is begun and ended here.
        work();
    }

private:
    struct Running {
        std::shared_ptr<Exchange> exchange;
        std::unique_ptr<HTTPTransfer> transfer;
        std::function<void()> done;
    };
    using RunningMap = std::map<Id, Running>;

    template <class Message>
    void tell(Message message) {
        asio::post(mailbox_, std::move(message));
        const std::lock_guard lock(lifeMutex_);
        if (isStopping_) {
            work();
            return;
        }
        if (!thread_.joinable()) thread_ = threadWithoutSignals([this] { run(); });
        curl_multi_wakeup(multi_);
    }

    void run() {
        while (!isStopping_) {
            work();
            curl_multi_poll(multi_, nullptr, 0, longestWaitMilliseconds, nullptr);
        }
    }

    /// All that can be done without waiting.
    void work() {
        mailbox_.restart();
        mailbox_.poll();
        int count = 0;
        curl_multi_perform(multi_, &count);
        while (const CURLMsg* message = curl_multi_info_read(multi_, &count))
            if (message->msg == CURLMSG_DONE) handleEnd(message->easy_handle, message->data.result);
        while (isStopping_ && !running_.empty()) finish(running_.begin());
    }

    void add(Id id, Running running) {
        void* const handle = running.transfer->handle();
        const auto entry = running_.emplace(id, std::move(running)).first;
        if (handle == nullptr) {
            finish(entry);
            return;
        }
        ids_[handle] = id;
        curl_multi_add_handle(multi_, handle);
    }

    void handleEnd(void* handle, CURLcode code) {
        const auto entry = running_.find(ids_.at(handle));
        curl_multi_remove_handle(multi_, handle);
        if (entry->second.transfer->proceed(code)) {
            curl_multi_add_handle(multi_, handle);
        } else {
            finish(entry);
        }
    }

    void finish(RunningMap::iterator entry) {
        if (entry == running_.end()) return;  // cancelled too late
        const Running running = std::move(entry->second);
        running_.erase(entry);
        if (void* const handle = running.transfer->handle()) {
            ids_.erase(handle);
            curl_multi_remove_handle(multi_, handle);
        }
        running.exchange->outcome = running.transfer->takeOutcome();
        running.done();
    }

    const Options options_;
    asio::io_context mailbox_{1};
    CURLM* multi_ = nullptr;
    RunningMap running_;
    std::map<void*, Id> ids_;
    std::atomic<Id> lastId_{0};
    std::atomic<bool> isStopping_{false};
    std::mutex lifeMutex_;  ///< over the thread's start and end, which callers on several threads bring about
    std::thread thread_;
};

HTTPClient::HTTPClient() : HTTPClient(Options{}) {}
HTTPClient::HTTPClient(Options options) : worker_(std::make_shared<Worker>(std::move(options))) {}
HTTPClient::~HTTPClient() { worker_->stop(); }
void HTTPClient::stop() { worker_->stop(); }

asio::awaitable<HTTPResponse> HTTPClient::fetch(HTTPRequest request) {
    const auto exchange = std::make_shared<Exchange>();
    exchange->request = std::move(request);
    const auto initiate = [worker = worker_, &exchange](auto handler) {
        const Worker::Id id = worker->newId();
        auto home = asio::prefer(asio::get_associated_executor(handler), asio::execution::outstanding_work.tracked);
        const auto slot = asio::get_associated_cancellation_slot(handler);
        if (slot.is_connected()) {
            auto cancel = [worker, id](asio::cancellation_type) { worker->cancel(id); };
            auto assignable = slot;
            assignable.assign(std::move(cancel));
        }
        const auto shared = std::make_shared<decltype(handler)>(std::move(handler));
        worker->begin(id, exchange, [home, shared] { asio::post(home, std::move(*shared)); });
    };
    co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(initiate, asio::use_awaitable);
    HTTPOutcome& outcome = exchange->outcome;
    if (outcome.error) throw HTTPException(*outcome.error, outcome.detail);
    if (!outcome.response) throw boost::system::system_error(asio::error::operation_aborted);
    co_return std::move(*outcome.response);
}

}  // namespace skein
