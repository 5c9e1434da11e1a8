#include "Core/engine/UTPProber.h"

#include "public/common/DescriptorBudget.h"
#include "public/common/ErrorText.h"
#include "public/common/Within.h"

#include <boost/asio/this_coro.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>

namespace skein {

UTPProber::UTPProber(Environment environment) : environment_(std::move(environment)), tasks_(environment_.strand) {}

void UTPProber::scheduleUTPProbe(const DialRequest& request) {
    const Clock::TimePoint now = environment_.clock.now();
    if (utpProbeRetryAfter_.isResting(request.address, now)) return;
    if (utpProbeInFlight_.size() >= maxUTPProbeInFlight) {
        const bool waits = std::ranges::find(deferred_, request.address, &DialRequest::address) != deferred_.end();
        if (waits) return;
        environment_.log.debug("[uTP][Probe] budget full; defer ", request.address.description());
        if (deferred_.size() >= maxDeferredProbes) deferred_.pop_front();
        deferred_.push_back(request);
        return;
    }
    utpProbeRetryAfter_.rest(request.address, now + utpProbeCooldownSeconds);
    utpProbeInFlight_.emplace(request.address, Flight{request});
    tasks_.spawn(probe(request));
}

void UTPProber::startDeferred() {
    while (!deferred_.empty() && utpProbeInFlight_.size() < maxUTPProbeInFlight) {
        const DialRequest next = deferred_.front();
        deferred_.pop_front();
        scheduleUTPProbe(next);
    }
}

void UTPProber::giveUp(const std::function<bool(const DialRequest&)>& whom) {
    std::erase_if(deferred_, whom);
    for (auto& [address, flight] : utpProbeInFlight_)
        if (whom(flight.request) && flight.transport != nullptr) flight.transport->cancel();
}

asio::awaitable<void> UTPProber::probe(DialRequest request) {
    co_await asio::this_coro::throw_if_cancelled(false);
    const Clock::TimePoint startedAt = environment_.clock.now();
    const auto transport = environment_.dial(request.address);
    utpProbeInFlight_.at(request.address).transport = transport.get();
    const std::string failure = co_await open(request.address, *transport);
    transport->cancel();
    utpProbeInFlight_.erase(request.address);
    if (tasks_.isStopping()) co_return;
    const auto roundTrip =
        std::chrono::duration_cast<std::chrono::milliseconds>(environment_.clock.now() - startedAt).count();
    if (failure.empty()) {
        environment_.log.info("[uTP][Probe] ✓ ", request.address.description(), " rtt=", roundTrip, " ms");
        environment_.onAnswer(request);
    } else {
        environment_.log.debug("[uTP][Probe] ✗ ", request.address.description(), " rtt=", roundTrip, " ms — ", failure);
    }
    startDeferred();
}

/// The error's text, or nothing when the peer answered.
asio::awaitable<std::string> UTPProber::open(const PeerAddress& address, PeerWireTransport& transport) {
    try {
        co_await within(environment_.clock, probeTimeout, transport.start());
    } catch (const boost::system::system_error& error) {
        // Nothing was asked of the peer then.
        if (isOutOfDescriptors(error.code())) utpProbeRetryAfter_.forget(address);
        co_return textOf(error);
    } catch (const std::exception& error) {
        co_return textOf(error);
    }
    co_return std::string();
}

}  // namespace skein
