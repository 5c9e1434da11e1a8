#include "Core/engine/PeerDialer.h"

#include "public/common/ErrorText.h"

#include <boost/asio/this_coro.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <utility>

namespace skein {

namespace {

constexpr std::string_view seederTag = "[Direct][Seeder] ";

std::string_view tagOf(const DialRequest& request, const DialAttempt& how) {
    if (how.transport == PeerTransport::utp) return "[uTP] ";
    if (how.isEncrypted()) return "[MSE] ";
    return request.servicePeer && request.servicePeer->isLeecher ? seederTag : std::string_view("[Direct] ");
}

DialFailure failureOf(const PeerConnection& connection) {
    if (!connection.hasReachedPeer()) return DialFailure::unreachable;
    if (connection.mayNeedOtherPrime()) return DialFailure::otherPrimeNeeded;
    const bool failedToEncrypt = connection.encryptionStatus() == PeerEncryptionStatus::handshakeFailed;
    return failedToEncrypt ? DialFailure::encryptionFailed : DialFailure::conversationFailed;
}

}  // namespace

PeerDialer::PeerDialer(Environment environment, Callbacks callbacks)
    : environment_(std::move(environment)),
      callbacks_(std::move(callbacks)),
      prober_(
          {environment_.strand, environment_.clock, environment_.log,
           [this](const PeerAddress& address) { return environment_.dial(address, {.transport = PeerTransport::utp}); },
           [this](const DialRequest& request) { handleUTPAnswer(request); }}),
      tasks_(environment_.strand) {}

asio::awaitable<void> PeerDialer::stop() {
    close();
    co_await tasks_.stop();
    co_await prober_.stop();
}

void PeerDialer::close() {
    isOpen_ = false;
    pendingPublicPeerDials_.clear();
    prober_.forgetDeferred();
}

// --- whom and when ---------------------------------------------------------------------------------------------------

void PeerDialer::connectToPeer(const DialRequest& request) {
    if (!isOpen_ || isShutOut(request) || isBusyWith(request.address)) return;
    ++addressesOffered_;
    if (isResting(request)) {
        environment_.log.debug("[Direct] skip recently failed public BT peer ", request.address.description());
        return;
    }
    if (!canReach(request.address)) {
        environment_.log.debug("[Direct] skip ", request.address.description(), ": it cannot be reached from ",
                               environment_.binding.name());
        return skip(request);
    }
    startOrQueue(request);
}

/// A name is judged by its addresses when it is dialled.
bool PeerDialer::canReach(const PeerAddress& address) const {
    const std::optional<IPAddress> literal = address.literal();
    return !literal || environment_.binding.canReach(*literal);
}

/// Nothing is held against a peer to which there is no way from here.
void PeerDialer::skip(const DialRequest& request) {
    if (request.isNamedByUser && environment_.binding.isInterface()) retryLater(request);
    callbacks_.onOutOfReach(request);
}

bool PeerDialer::isResting(const DialRequest& request) {
    const Clock::TimePoint now = environment_.clock.now();
    // A peer of the service is there now, whatever it was when others named it.
    return unwanted_.isResting(request.address, now) ||
           (!request.servicePeer && publicPeerRetryAfter_.isResting(request.address, now));
}

bool PeerDialer::isBusyWith(const PeerAddress& address) const {
    return publicPeerDialInFlight_.contains(address) || callbacks_.isConnectedTo(address);
}

/// The budget of dials, and of those to one host, is for strangers; the user's own peers always have room.
bool PeerDialer::mayDialNow(const DialRequest& request) const {
    if (!environment_.descriptors.hasRoom()) return false;
    if (request.isNamedByUser) return true;
    if (publicPeerDialInFlight_.size() >= callbacks_.room()) return false;
    if (request.servicePeer) return true;
    if (publicPeerDialInFlight_.size() >= maxPublicPeerDialInFlight) return false;
    const std::string host = DialQueue::hostOf(request.address);
    return std::ranges::count_if(publicPeerDialInFlight_, [&](const auto& flight) {
               return DialQueue::hostOf(flight.first) == host;
           }) < maxDialsToOneHost;
}

void PeerDialer::startOrQueue(const DialRequest& request) {
    if (!mayDialNow(request)) {
        // The service lists its peers again before long.
        if (request.servicePeer) return;
        if (environment_.descriptors.hasRoom()) return enqueuePendingPublicPeerDial(request);
        return waitForDescriptors(request);
    }
    if (request.isNamedByUser && callbacks_.room() == 0) callbacks_.onRoomNeeded();
    publicPeerDialInFlight_.emplace(request.address, Flight{request});
    tasks_.spawn(dial(request));
}

void PeerDialer::enqueuePendingPublicPeerDial(const DialRequest& request) {
    const DialQueue::Outcome outcome = pendingPublicPeerDials_.push(request);
    if (outcome == DialQueue::Outcome::known) return;
    if (outcome == DialQueue::Outcome::hostIsFull)
        return environment_.log.debug("[Direct] enough addresses of that host wait; drop ",
                                      request.address.description());
    if (outcome == DialQueue::Outcome::droppedOldest)
        environment_.log.debug("[Direct] public BT pending queue full; drop oldest");
    environment_.log.debug("[Direct] public BT dial budget full; queued ", request.address.description(),
                           " pending=", pendingPublicPeerDials_.size());
}

/// No descriptors are left for a socket: that says nothing of the peer, which is dialled when there are some again.
void PeerDialer::waitForDescriptors(const DialRequest& request) {
    enqueuePendingPublicPeerDial(request);
    if (!std::exchange(awaitsDescriptors_, true)) tasks_.spawn(drainOnceThereIsRoom());
}

asio::awaitable<void> PeerDialer::drainOnceThereIsRoom() {
    do co_await environment_.clock.sleep(descriptorPause);
    while (!environment_.descriptors.hasRoom() && !pendingPublicPeerDials_.empty());
    awaitsDescriptors_ = false;
    drainPendingPublicPeerDials();
}

void PeerDialer::drainPendingPublicPeerDials() {
    const auto mayDial = [this](const DialRequest& request) { return mayDialNow(request); };
    while (const std::optional<DialRequest> next = pendingPublicPeerDials_.take(mayDial)) {
        environment_.log.debug("[Direct] public BT dial budget released; retry queued ", next->address.description(),
                               " pending=", pendingPublicPeerDials_.size());
        connectToPeer(*next);
    }
}

void PeerDialer::leaveAlone(const PeerAddress& address, Clock::Duration cooldown) {
    unwanted_.rest(address, environment_.clock.now() + cooldown);
}

void PeerDialer::givePublicPeersUp() {
    isPrivate_ = true;
    pendingPublicPeerDials_.eraseIf([this](const DialRequest& request) { return isShutOut(request); });
    for (auto& [address, flight] : publicPeerDialInFlight_)
        if (isShutOut(flight.request) && flight.connection != nullptr) flight.connection->disconnect();
    prober_.giveUp([this](const DialRequest& request) { return isShutOut(request); });
}

void PeerDialer::restAfterFailure(const PeerAddress& address) {
    publicPeerRetryAfter_.rest(address, environment_.clock.now() + publicPeerFailureCooldown);
}

void PeerDialer::noteDisconnect(const DialRequest& origin, bool wasFruitless) {
    if (origin.servicePeer || isResting(origin)) return;
    if (origin.isNamedByUser) return retryLater(origin);
    if (wasFruitless) restAfterFailure(origin.address);
}

void PeerDialer::retryLater(const DialRequest& request) {
    // One that failed over TCP and then over uTP would else be retried twice as often each time.
    if (namedPeersToRetry_.insert(request.address).second) tasks_.spawn(retryNamedPeer(request));
}

asio::awaitable<void> PeerDialer::retryNamedPeer(DialRequest request) {
    try {
        co_await environment_.clock.sleep(namedPeerRetry);
    } catch (const std::exception&) {
        co_return;
    }
    namedPeersToRetry_.erase(request.address);
    connectToPeer(request);
}

// --- how -------------------------------------------------------------------------------------------------------------

asio::awaitable<void> PeerDialer::dial(DialRequest request) {
    co_await asio::this_coro::throw_if_cancelled(false);  // a cancelled dial still stops its connection
    const auto known = experiences_.find(request.address);
    DialPlan plan(environment_.options, known == experiences_.end() ? DialExperience() : known->second);
    std::unique_ptr<PeerConnection> connection;
    Outcome outcome;
    for (bool goesOn = true; goesOn;) {
        const DialAttempt how = plan.current();
        connection = callbacks_.makeConnection(request.address, environment_.dial(request.address, how));
        publicPeerDialInFlight_.at(request.address).connection = connection.get();
        outcome = co_await attempt(request, *connection, how);
        if (tasks_.isStopping() || isShutOut(request)) break;
        learn(*connection, how);
        if (outcome.failure.empty()) break;
        co_await connection->stop();
        goesOn = !outcome.isOutOfDescriptors && isOpen_ && !tasks_.isStopping() && plan.advance(failureOf(*connection));
    }
    publicPeerDialInFlight_.erase(request.address);
    if (tasks_.isStopping() || isShutOut(request)) {
        co_await connection->stop();
        if (!tasks_.isStopping()) drainPendingPublicPeerDials();
        co_return;
    }
    if (outcome.isOutOfDescriptors) {
        if (isOpen_) waitForDescriptors(request);
        co_return;
    }
    if (outcome.failure.empty()) {
        callbacks_.onConnected(request, std::move(connection));
    } else {
        rememberFailedDial(request, *connection, outcome.failure);
        if (plan.suggestsUTPProbe()) prober_.scheduleUTPProbe(request);
    }
    drainPendingPublicPeerDials();
}

asio::awaitable<PeerDialer::Outcome> PeerDialer::attempt(const DialRequest& request, PeerConnection& connection,
                                                         DialAttempt how) {
    const std::string_view tag = tagOf(request, how);
    const std::string address = connection.address().description();
    environment_.log.debug(tag, "→ ", address);
    const std::chrono::seconds plainTimeout = request.servicePeer ? platformConnectTimeout : publicBTConnectTimeout;
    Outcome outcome;
    try {
        co_await connection.connect(how.isEncrypted() ? encryptedConnectTimeout : plainTimeout, how.encryption,
                                    how.prime);
    } catch (const boost::system::system_error& error) {
        outcome = {textOf(error), isOutOfDescriptors(error.code())};
    } catch (const std::exception& error) {
        outcome.failure = textOf(error);
    }
    if (outcome.failure.empty()) {
        environment_.log.info(tag, "✓ ", address);
    } else if (!tasks_.isStopping()) {
        const bool isUnreachedLeecher = tag == seederTag && !connection.hasReachedPeer();
        environment_.log.info(tag, "✗ ", address, " — ", isUnreachedLeecher ? "seeder tcp failed" : outcome.failure);
    }
    co_return outcome;
}

void PeerDialer::learn(const PeerConnection& connection, const DialAttempt& how) {
    const PeerAddress& address = connection.address();
    if (connection.encryptionStatus() == PeerEncryptionStatus::encrypted && how.prime == MSEPrime::rfc2409)
        experienceWith(address).prime = how.prime;
    if (how.transport == PeerTransport::utp && !connection.hasReachedPeer()) experiences_.erase(address);
}

DialExperience& PeerDialer::experienceWith(const PeerAddress& address) {
    const auto found = experiences_.find(address);
    if (found != experiences_.end()) return found->second;
    if (experiences_.size() >= maxExperiences) experiences_.erase(experiences_.begin());
    return experiences_[address];
}

// --- what came of it -------------------------------------------------------------------------------------------------

void PeerDialer::rememberFailedDial(const DialRequest& request, const PeerConnection& last, const std::string& error) {
    if (request.isNamedByUser) {
        retryLater(request);
    } else if (!request.servicePeer) {
        environment_.log.debug("[Direct] public BT peer failed; no Relay fallback ", request.address.description());
        restAfterFailure(request.address);
    }
    callbacks_.onFailed(request);
    PeerRuntimeInfo row;
    row.address = request.address;
    row.source = request.source;
    row.direction = PeerDirection::outgoing;
    row.transport = last.transportKind();
    row.encryption = last.encryptionStatus();
    row.lastError = request.isNamedByUser || request.servicePeer ? error : "public peer connect failed";
    callbacks_.onRow(std::move(row));
}

void PeerDialer::handleUTPAnswer(const DialRequest& request) {
    experienceWith(request.address).answersUTP = true;
    if (!isOpen_ || isShutOut(request) || isBusyWith(request.address)) return;
    PeerRuntimeInfo row;
    row.address = request.address;
    row.source = request.source;
    row.direction = PeerDirection::outgoing;
    row.transport = PeerTransport::utp;
    row.lastError = utpPeerMark;
    callbacks_.onRow(std::move(row));
    publicPeerRetryAfter_.forget(request.address);
    startOrQueue(request);
}

bool PeerDialer::isDetectedUTPPeer(const PeerAddress& address) const {
    const auto found = experiences_.find(address);
    return found != experiences_.end() && found->second.answersUTP;
}

}  // namespace skein
