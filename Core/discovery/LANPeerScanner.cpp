#include "Core/discovery/LANPeerScanner.h"

#include "public/common/BoundSocket.h"
#include "public/common/Within.h"

#include <boost/asio/cancellation_state.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

namespace skein {

namespace {

using asio::ip::tcp;

asio::awaitable<void> connect(tcp::socket& socket, tcp::endpoint remote, LocalBinding binding) {
    openBound(socket, remote, binding);
    co_await socket.async_connect(remote, asio::use_awaitable);
}

}  // namespace

/// What the probes of one scan share. Thread: the scanner's strand.
class LANPeerScanner::Progress {
public:
    Progress(LANScanTargets targets, OpenPortFound onOpenPort)
        : targets_(std::move(targets)), onOpenPort_(std::move(onOpenPort)) {}

    std::size_t size() const noexcept { return targets_.hosts.size() * targets_.ports.size(); }
    /// What to try next: the hosts in turn, so that none gets all of its probes at once.
    std::optional<PeerAddress> next() {
        if (position_ >= size()) return std::nullopt;
        const std::size_t host = position_ % targets_.hosts.size();
        const std::size_t port = position_ / targets_.hosts.size();
        ++position_;
        return PeerAddress{targets_.hosts[host], targets_.ports[port]};
    }
    void report(const PeerAddress& peer) const { onOpenPort_(peer); }

private:
    const LANScanTargets targets_;
    const OpenPortFound onOpenPort_;
    std::size_t position_ = 0;
};

LANPeerScanner::LANPeerScanner(const asio::any_io_executor& pool, Clock& clock, LocalBinding binding)
    : clock_(clock), binding_(std::move(binding)), tasks_(pool) {}

asio::awaitable<void> LANPeerScanner::scan(LANScanTargets targets, OpenPortFound onOpenPort) {
    return tasks_.call(scanAll(std::move(targets), std::move(onOpenPort)));
}

asio::awaitable<void> LANPeerScanner::stop() { return tasks_.stop(); }

asio::awaitable<void> LANPeerScanner::scanAll(LANScanTargets targets, OpenPortFound onOpenPort) {
    Progress progress(std::move(targets), std::move(onOpenPort));
    const auto start = [&] { return asio::co_spawn(tasks_.strand(), probe(progress), asio::deferred); };
    std::vector<decltype(start())> probes;
    for (std::size_t i = 0; i < std::min(probesAtOnce, progress.size()); ++i) probes.push_back(start());
    if (probes.empty()) co_return;
    auto group = asio::experimental::make_parallel_group(std::move(probes));
    const auto [order, failures] = co_await group.async_wait(asio::experimental::wait_for_all(), asio::use_awaitable);
    // None fails but by cancellation, which is then ours.
    for (const std::exception_ptr& failure : failures)
        if (failure) std::rethrow_exception(failure);
}

asio::awaitable<void> LANPeerScanner::probe(Progress& progress) {
    while (const auto target = progress.next()) {
        const bool isOpen = co_await isTCPPortOpen(clock_, target->host, target->port, probeTimeout, binding_);
        if (isOpen) progress.report(*target);
    }
}

asio::awaitable<bool> isTCPPortOpen(Clock& clock, std::string host, std::uint16_t port, Clock::Duration timeout,
                                    LocalBinding binding) {
    const asio::cancellation_state caller = co_await asio::this_coro::cancellation_state;
    const auto executor = co_await asio::this_coro::executor;
    boost::system::error_code notLiteral;
    const tcp::endpoint remote(asio::ip::make_address(host, notLiteral), port);
    if (notLiteral) co_return false;
    tcp::socket socket(executor);
    try {
        co_await within(clock, timeout, connect(socket, remote, std::move(binding)));
        // A socket may be given the very port that it connects to. Where nobody listens, it then meets itself.
        co_return socket.local_endpoint() != remote;
    } catch (const TimeLimitExceeded&) {
        co_return false;
    } catch (const boost::system::system_error&) {
        if (caller.cancelled() != asio::cancellation_type::none) throw;
        co_return false;
    }
}

}  // namespace skein
