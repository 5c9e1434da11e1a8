#include "public/common/NameLookups.h"

#include "public/common/StartThread.h"

#include <algorithm>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <new>
#include <sys/socket.h>
#include <utility>

namespace skein {

namespace {

/// Of one host; nobody tries more in turn.
constexpr std::size_t maxAddresses = 16;

}  // namespace

const std::shared_ptr<NameLookups>& NameLookups::shared() {
    static const auto lookups = std::make_shared<NameLookups>();
    return lookups;
}

NameLookups::Addresses NameLookups::askSystem(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;  // any one kind, so that no address comes twice
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return {};
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, ::freeaddrinfo);
    Addresses addresses;
    for (const addrinfo* entry = found; entry != nullptr && addresses.size() < maxAddresses; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET) {
            IPAddress::V4Bytes bytes{};
            sockaddr_in address{};
            std::memcpy(&address, entry->ai_addr, sizeof address);
            std::memcpy(bytes.data(), &address.sin_addr, bytes.size());
            addresses.emplace_back(bytes);
        } else if (entry->ai_family == AF_INET6) {
            IPAddress::V6Bytes bytes{};
            sockaddr_in6 address{};
            std::memcpy(&address, entry->ai_addr, sizeof address);
            std::memcpy(bytes.data(), &address.sin6_addr, bytes.size());
            addresses.emplace_back(bytes);
        }
    }
    return addresses;
}

void NameLookups::begin(Id id, const std::string& host, MayAsk mayAsk, Answer answer) {
    std::unique_lock lock(mutex_);
    if (const Addresses* const known = kept(host)) {
        const Addresses addresses = *known;
        lock.unlock();
        return answer(&addresses);
    }
    std::shared_ptr<Query>& query = byHost_[host];
    const bool isNew = !query;
    if (isNew) {
        query = std::make_shared<Query>(Query{host, {}});
        queue_.push_back(query);
    }
    query->waiting.emplace(id, Waiting{std::move(mayAsk), std::move(answer)});
    byId_.emplace(id, query);
    if (!isNew || threads_ == maxThreads || addThread() || threads_ > 0) return;
    // The queue was empty: nobody takes from it.
    const Answer unanswered = std::move(query->waiting.extract(id).mapped().answer);
    byId_.erase(id);
    byHost_.erase(host);
    queue_.pop_back();
    lock.unlock();
    const Addresses nothing;
    unanswered(&nothing);
}

bool NameLookups::addThread() {
    try {
        // Not joined by anybody: see the class. It holds this, and nothing else of the program.
        start_([self = shared_from_this()] { self->work(); });
        ++threads_;
        return true;
    } catch (const ThreadShortage&) {
        return false;
    }
}

void NameLookups::startDetached(std::function<void()> work) { startThread(std::move(work)).detach(); }

void NameLookups::cancel(Id id) {
    std::unique_lock lock(mutex_);
    const auto found = byId_.find(id);
    if (found == byId_.end()) return;
    const Answer answer = std::move(found->second->waiting.extract(id).mapped().answer);
    byId_.erase(found);
    lock.unlock();
    answer(nullptr);
}

void NameLookups::work() {
    std::unique_lock lock(mutex_);
    while (!queue_.empty()) {
        const std::shared_ptr<Query> query = std::move(queue_.front());
        queue_.pop_front();
        Addresses addresses;
        const bool isWanted =
            std::ranges::any_of(query->waiting, [](const auto& entry) { return entry.second.mayAsk(); });
        if (isWanted) {
            lock.unlock();
            try {
                addresses = ask_(query->host);
            } catch (const std::bad_alloc&) {
                // Not found, then: it may be found later.
            }
            lock.lock();
            keep(query->host, addresses);
        }
        byHost_.erase(query->host);
        const std::map<Id, Waiting> waiting = std::move(query->waiting);
        query->waiting.clear();
        for (const auto& [id, waiter] : waiting) byId_.erase(id);
        lock.unlock();
        for (const auto& [id, waiter] : waiting) waiter.answer(&addresses);
        lock.lock();
    }
    --threads_;
}

const NameLookups::Addresses* NameLookups::kept(const std::string& host) {
    const auto found = kept_.find(host);
    if (found == kept_.end()) return nullptr;
    if (found->second.until > Clock::now()) return &found->second.addresses;
    kept_.erase(found);
    return nullptr;
}

void NameLookups::keep(const std::string& host, Addresses addresses) {
    if (kept_.size() >= mostKept) kept_.erase(kept_.begin());
    const auto time = addresses.empty() ? failureKeptFor : keptFor;
    kept_.insert_or_assign(host, Kept{std::move(addresses), Clock::now() + time});
}

}  // namespace skein
