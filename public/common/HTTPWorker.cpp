#include "public/common/HTTPWorker.h"

#include "public/common/ErrorText.h"
#include "public/common/StartThread.h"

#include <boost/asio/post.hpp>
#include <curl/curl.h>

#include <algorithm>
#include <csignal>
#include <new>
#include <pthread.h>
#include <stdexcept>
#include <utility>

namespace skein {

namespace {

/// Over the program; what goes beyond waits for its turn (and its time-out runs).
constexpr long maxConnections = 256;
/// Kept open for the next request.
constexpr long keptConnections = 32;
/// curl wakes up by its own timers and for what is posted; this is only an upper bound for it to be given.
constexpr std::chrono::hours longestWait{1};

void initialiseCurl() {
    static const CURLcode done = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (done != CURLE_OK) throw std::runtime_error(curl_easy_strerror(done));
}

/// While it lives, this thread and those that it starts get no signal: the program's handlers run elsewhere, and a
/// broken TLS connection raises SIGPIPE.
class NoSignals {
public:
    NoSignals() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    NoSignals(const NoSignals&) = delete;
    NoSignals& operator=(const NoSignals&) = delete;
    ~NoSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_{};
};

/// For want of what the program has, not by what the network did.
void fail(HTTPExchange& exchange, std::string why) {
    exchange.outcome.error = HTTPError::transferFailed;
    exchange.outcome.detail = std::move(why);
    exchange.isAborted = false;
}

}  // namespace

HTTPWorker::HTTPWorker(HTTPClient::Options options) : options_(std::move(options)) {
    initialiseCurl();
    multi_ = curl_multi_init();
    if (multi_ == nullptr) throw std::bad_alloc();
    curl_multi_setopt(multi_, CURLMOPT_MAX_TOTAL_CONNECTIONS, maxConnections);
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, keptConnections);
}

HTTPWorker::~HTTPWorker() { curl_multi_cleanup(multi_); }

template <class Message>
void HTTPWorker::tell(Message message) {
    asio::post(mailbox_, std::move(message));
    const std::lock_guard lock(lifeMutex_);
    if (isStopping_) {
        work();
        return;
    }
    curl_multi_wakeup(multi_);
}

void HTTPWorker::startOnce() {
    const std::lock_guard lock(lifeMutex_);
    if (isStopping_ || thread_.joinable()) return;
    const NoSignals inTheThread;
    thread_ = startThread([this] { run(); });
}

void HTTPWorker::begin(Id id, HTTPBody body, std::shared_ptr<HTTPExchange> exchange, Done done) {
    try {
        startOnce();
    } catch (const ThreadShortage& shortage) {
        fail(*exchange, shortage.what());
        return done();
    }
    tell([this, id, body, exchange = std::move(exchange), done = std::move(done)] {
        std::unique_ptr<HTTPTransfer> transfer;
        try {
            transfer = std::make_unique<HTTPTransfer>(std::move(exchange->request), body, options_);
        } catch (const std::bad_alloc& shortage) {
            fail(*exchange, textOf(shortage));
            return done();
        }
        add(id, Running{std::move(transfer), exchange, done});
    });
}

void HTTPWorker::read(Id id, std::shared_ptr<HTTPExchange> exchange, Done done) {
    tell([this, id, exchange = std::move(exchange), done = std::move(done)] {
        const auto entry = running_.find(id);
        if (entry == running_.end()) return done();  // cancelled, or the worker stops
        entry->second.transfer->recycle(std::exchange(exchange->chunks, {}));
        entry->second.exchange = exchange;
        entry->second.done = done;
        readers_.insert(id);
        answerIfReady(entry, HTTPBodyBuffer::portionBytes);
    });
}

void HTTPWorker::cancel(Id id) {
    tell([this, id] { finish(running_.find(id)); });
}

void HTTPWorker::stop() {
    const std::lock_guard lock(lifeMutex_);
    isStopping_ = true;
    if (thread_.joinable()) {
        curl_multi_wakeup(multi_);
        thread_.join();
    }
    // Nobody else polls the mailbox now: what still lies in it is begun and ended here.
    work();
}

void HTTPWorker::run() {
    while (!isStopping_) {
        work();
        // While the network brings more at once, a reader waits for a large portion: waking it costs more than the
        // wait.
        const bool isHeldBack =
            std::ranges::any_of(readers_, [this](Id id) { return running_.at(id).transfer->hasBody(); });
        int ready = 0;
        curl_multi_poll(multi_, nullptr, 0, isHeldBack ? 0 : longestWaitMilliseconds(), &ready);
        if (isHeldBack && ready == 0) answerReaders(1);
    }
}

void HTTPWorker::answerReaders(std::size_t leastBytes) {
    const std::set<Id> readers = readers_;
    for (const Id id : readers) answerIfReady(running_.find(id), leastBytes);
}

/// All that can be done without waiting.
void HTTPWorker::work() {
    mailbox_.restart();
    mailbox_.poll();
    giveLookupsUp();
    int count = 0;
    curl_multi_perform(multi_, &count);
    while (const CURLMsg* message = curl_multi_info_read(multi_, &count))
        if (message->msg == CURLMSG_DONE) handleEnd(message->easy_handle, message->data.result);
    answerReaders(HTTPBodyBuffer::portionBytes);
    while (isStopping_ && !running_.empty()) finish(running_.begin());
}

void HTTPWorker::add(Id id, Running running) {
    void* const handle = running.transfer->handle();
    if (running.transfer->isStreamed()) readers_.insert(id);
    const auto entry = running_.emplace(id, std::move(running)).first;
    if (handle == nullptr) {
        finish(entry);
        return;
    }
    ids_[handle] = id;
    start(entry);
}

void HTTPWorker::perform(RunningMap::iterator entry) {
    void* const handle = entry->second.transfer->handle();
    if (curl_multi_add_handle(multi_, handle) != CURLM_OK) handleEnd(handle, CURLE_OUT_OF_MEMORY);
}

/// Runs the transfer, once it is known where its host is.
void HTTPWorker::start(RunningMap::iterator entry) {
    Running& running = entry->second;
    const auto host = running.transfer->hostToFind();
    if (!host) {
        perform(entry);
        return;
    }
    if (isStopping_) return;  // it is about to be ended
    running.lookup = options_.lookups->newId();
    running.lookupEnds = std::chrono::steady_clock::now() + running.transfer->findingLimit();
    auto answer = [weak = weak_from_this(), id = entry->first,
                   lookup = running.lookup](const NameLookups::Addresses* found) {
        const auto self = weak.lock();
        if (found != nullptr && self)
            self->tell(
                [worker = self.get(), id, lookup, addresses = *found] { worker->handleFound(id, lookup, addresses); });
    };
    auto mayAsk = [binding = options_.binding] { return !binding.isGone(); };
    options_.lookups->begin(running.lookup, *host, std::move(mayAsk), std::move(answer));
}

void HTTPWorker::handleFound(Id id, NameLookups::Id lookup, const NameLookups::Addresses& addresses) {
    const auto entry = running_.find(id);
    if (entry == running_.end() || entry->second.lookup != lookup) return;
    entry->second.lookup = 0;
    if (entry->second.transfer->setAddresses(addresses)) {
        perform(entry);
    } else {
        endUnlessStreamed(entry);
    }
}

/// A look-up may take longer than its asker waits.
void HTTPWorker::giveLookupsUp() {
    const auto now = std::chrono::steady_clock::now();
    for (auto entry = running_.begin(); entry != running_.end();) {
        const auto current = entry++;
        if (current->second.lookup == 0 || current->second.lookupEnds > now) continue;
        options_.lookups->cancel(std::exchange(current->second.lookup, 0));
        current->second.transfer->giveUpFinding();
        endUnlessStreamed(current);
    }
}

int HTTPWorker::longestWaitMilliseconds() const {
    const auto now = std::chrono::steady_clock::now();
    std::chrono::milliseconds wait = longestWait;
    for (const auto& [id, running] : running_)
        if (running.lookup != 0)
            wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(running.lookupEnds - now));
    return static_cast<int>(std::max<std::int64_t>(wait.count(), 0));
}

/// A stream tells its reader itself.
void HTTPWorker::endUnlessStreamed(RunningMap::iterator entry) {
    if (!entry->second.transfer->isStreamed()) finish(entry);
}

void HTTPWorker::handleEnd(void* handle, int curlCode) {
    const auto entry = running_.find(ids_.at(handle));
    curl_multi_remove_handle(multi_, handle);
    if (entry->second.transfer->proceed(curlCode)) {
        start(entry);
    } else {
        endUnlessStreamed(entry);
    }
}

/// Gives a reader what it waits for: the head, then what there is of the body if it is enough, then the end.
void HTTPWorker::answerIfReady(RunningMap::iterator entry, std::size_t leastBytes) {
    HTTPTransfer& transfer = *entry->second.transfer;
    HTTPExchange& exchange = *entry->second.exchange;
    if (transfer.hasHead()) {
        exchange.outcome.response = transfer.takeHead();
    } else if (transfer.heldBytes() >= leastBytes || (transfer.isEnded() && transfer.hasBody())) {
        exchange.chunks = transfer.takeBody();
    } else if (transfer.isEnded()) {
        exchange.isAborted = false;
        finish(entry);
        return;
    } else {
        return;
    }
    exchange.isAborted = false;
    readers_.erase(entry->first);
    entry->second.exchange.reset();
    std::exchange(entry->second.done, nullptr)();
}

void HTTPWorker::finish(RunningMap::iterator entry) {
    if (entry == running_.end()) return;  // cancelled too late
    const Running running = std::move(entry->second);
    if (running.lookup != 0) options_.lookups->cancel(running.lookup);
    readers_.erase(entry->first);
    running_.erase(entry);
    if (void* const handle = running.transfer->handle()) {
        ids_.erase(handle);
        curl_multi_remove_handle(multi_, handle);
    }
    if (!running.done) return;
    running.exchange->outcome = running.transfer->takeOutcome();
    if (running.exchange->outcome.response) running.exchange->isAborted = false;
    running.done();
}

}  // namespace skein
