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

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

namespace skein {

/// Who waits in a resolver. Answers may come when it has gone, and then find nobody: whatever belongs to a caller's
/// executor is let go of while the mutex is held, and so before the resolver has gone.
class SystemNameResolver::Waiting {
public:
    struct Caller {
        std::optional<NameLookups::Addresses> found;
        std::function<void()> resume;  // only posts; empty once the caller was told
    };

    /// False, and the caller is told, once the resolver goes.
    bool add(NameLookups::Id id, const std::shared_ptr<Caller>& caller) {
        const std::lock_guard lock(mutex_);
        if (isClosed_) {
            resume(*caller);
        } else {
            callers_.emplace(id, caller);
        }
        return !isClosed_;
    }
    void tell(NameLookups::Id id, const NameLookups::Addresses* found) {
        const std::lock_guard lock(mutex_);
        const auto entry = callers_.extract(id);
        if (entry.empty()) return;
        Caller& caller = *entry.mapped();
        if (found != nullptr) caller.found = *found;
        resume(caller);
    }
    void close(NameLookups& lookups) {
        std::map<NameLookups::Id, std::shared_ptr<Caller>> callers;
        {
            const std::lock_guard lock(mutex_);
            isClosed_ = true;
            callers = std::move(callers_);
            callers_.clear();
            for (const auto& [id, caller] : callers) resume(*caller);
        }
        for (const auto& [id, caller] : callers) lookups.cancel(id);
    }

private:
    static void resume(Caller& caller) {
        const auto work = std::exchange(caller.resume, {});
        work();
    }

    std::mutex mutex_;
    std::map<NameLookups::Id, std::shared_ptr<Caller>> callers_;
    bool isClosed_ = false;
};

SystemNameResolver::SystemNameResolver(LocalBinding binding, std::shared_ptr<NameLookups> lookups)
    : binding_(std::move(binding)), lookups_(std::move(lookups)), waiting_(std::make_shared<Waiting>()) {}

SystemNameResolver::~SystemNameResolver() { waiting_->close(*lookups_); }

asio::awaitable<std::vector<IPAddress>> SystemNameResolver::resolve(std::string host) {
    if (const auto literal = IPAddress::parse(host)) co_return std::vector<IPAddress>{*literal};
    if (binding_.isGone()) throw boost::system::system_error(NetworkRefusal::interfaceGone);
    const auto caller = std::make_shared<Waiting::Caller>();
    const auto initiate = [lookups = lookups_, waiting = waiting_, caller, host, binding = binding_](auto handler) {
        auto slot = asio::get_associated_cancellation_slot(handler);
        auto home = asio::prefer(asio::get_associated_executor(handler), asio::execution::outstanding_work.tracked);
        const auto shared = std::make_shared<decltype(handler)>(std::move(handler));
        caller->resume = [home = std::move(home), shared] { asio::post(home, std::move(*shared)); };
        const NameLookups::Id id = lookups->newId();
        if (slot.is_connected()) {
            auto cancel = [lookups, id](asio::cancellation_type) { lookups->cancel(id); };
            slot.assign(std::move(cancel));
        }
        // Once the caller was told, another thread may go on in the coroutine, to which this lambda belongs: `begin`
        // is the last that uses it, and looks at nothing of it after an answer.
        auto answer = [waiting, id](const NameLookups::Addresses* found) { waiting->tell(id, found); };
        auto mayAsk = [binding] { return !binding.isGone(); };
        if (waiting->add(id, caller)) lookups->begin(id, host, std::move(mayAsk), std::move(answer));
    };
    co_await asio::async_initiate<const asio::use_awaitable_t<>, void()>(initiate, asio::use_awaitable);
    if (!caller->found) throw boost::system::system_error(asio::error::operation_aborted);
    NameLookups::Addresses& addresses = *caller->found;
    if (addresses.empty() && binding_.isGone()) throw boost::system::system_error(NetworkRefusal::interfaceGone);
    if (addresses.empty()) throw boost::system::system_error(asio::error::host_not_found);
    std::erase_if(addresses, [this](const IPAddress& address) { return !binding_.canReach(address); });
    if (addresses.empty()) throw boost::system::system_error(NetworkRefusal::familyNotBound);
    co_return std::move(addresses);
}

}  // namespace skein
