#include "public/common/NameResolver.h"

#include "public/common/NetworkRefusal.h"

#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/execution/outstanding_work.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/prefer.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <thread>
#include <utility>

namespace skein {

namespace {

/// Of one host; nobody tries more in turn.
constexpr std::size_t maxAddresses = 16;

std::vector<IPAddress> askSystem(const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;  // any one kind, so that no address comes twice
    addrinfo* found = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) return {};
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(found, ::freeaddrinfo);
    std::vector<IPAddress> addresses;
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

}  // namespace

/// Where look-ups wait for a thread. Shared by the resolver, its threads and those who wait.
class SystemNameResolver::Desk : public std::enable_shared_from_this<Desk> {
public:
    struct Query {
        std::string host;
        std::vector<IPAddress> addresses;
        bool isAborted = false;
        std::function<void()> resume;  // empty once the caller has been told
    };

    void begin(const std::shared_ptr<Query>& query) {
        const std::lock_guard lock(mutex_);
        if (isClosed_) {
            abort(*query);
            return;
        }
        waiting_.push_back(query);
        if (threads_ == maxThreads) return;
        ++threads_;
        // Not joined by anybody: see the class. It holds the desk, and nothing else of the program.
        std::thread([self = shared_from_this()] { self->work(); }).detach();
    }

    void cancel(const std::shared_ptr<Query>& query) {
        const std::lock_guard lock(mutex_);
        abort(*query);
    }

    void close() {
        const std::lock_guard lock(mutex_);
        isClosed_ = true;
        for (const auto& query : waiting_) abort(*query);
        for (const auto& query : asked_) abort(*query);
        waiting_.clear();
    }

private:
    // The mutex is held in all of these, and `resume` only posts.
    static void tell(Query& query) {
        const auto resume = std::exchange(query.resume, {});
        if (resume) resume();
    }
    static void abort(Query& query) {
        if (query.resume) query.isAborted = true;
        tell(query);
    }

    void work() {
        std::unique_lock lock(mutex_);
        while (!waiting_.empty()) {
            const std::shared_ptr<Query> query = std::move(waiting_.front());
            waiting_.pop_front();
            if (!query->resume) continue;  // cancelled while it waited
            asked_.push_back(query);
            lock.unlock();
            std::vector<IPAddress> addresses = askSystem(query->host);
            lock.lock();
            std::erase(asked_, query);
            if (query->resume) query->addresses = std::move(addresses);
            tell(*query);
        }
        --threads_;
    }

    std::mutex mutex_;
    std::deque<std::shared_ptr<Query>> waiting_;
    std::vector<std::shared_ptr<Query>> asked_;
    int threads_ = 0;
    bool isClosed_ = false;
};

SystemNameResolver::SystemNameResolver(LocalBinding binding)
    : binding_(std::move(binding)), desk_(std::make_shared<Desk>()) {}
SystemNameResolver::~SystemNameResolver() { desk_->close(); }

asio::awaitable<std::vector<IPAddress>> SystemNameResolver::resolve(std::string host) {
    if (const auto literal = IPAddress::parse(host)) co_return std::vector<IPAddress>{*literal};
    if (binding_.isGone()) throw boost::system::system_error(NetworkRefusal::interfaceGone);
    const auto query = std::make_shared<Desk::Query>();
    query->host = std::move(host);
    const auto initiate = [desk = desk_, &query](auto handler) {
        auto home = asio::prefer(asio::get_associated_executor(handler), asio::execution::outstanding_work.tracked);
        auto slot = asio::get_associated_cancellation_slot(handler);
        const auto shared = std::make_shared<decltype(handler)>(std::move(handler));
        query->resume = [home, shared] { asio::post(home, std::move(*shared)); };
        if (slot.is_connected()) {
            auto cancel = [desk, query = query](asio::cancellation_type) { desk->cancel(query); };
            slot.assign(std::move(cancel));
        }
        desk->begin(query);
    };
    co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(initiate, asio::use_awaitable);
    if (query->isAborted) throw boost::system::system_error(asio::error::operation_aborted);
    if (query->addresses.empty()) throw boost::system::system_error(asio::error::host_not_found);
    std::erase_if(query->addresses, [this](const IPAddress& address) { return !binding_.canReach(address); });
    if (query->addresses.empty()) throw boost::system::system_error(NetworkRefusal::familyNotBound);
    co_return std::move(query->addresses);
}

}  // namespace skein
