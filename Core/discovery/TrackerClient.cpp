#include "Core/discovery/TrackerClient.h"

#include "Core/discovery/TrackerError.h"
#include "Core/discovery/TrackerReply.h"
#include "Core/discovery/TrackerRequest.h"
#include "Core/discovery/TrackerURL.h"
#include "public/common/ShownURL.h"

#include <boost/asio/cancellation_state.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

#include <algorithm>
#include <unordered_set>
#include <utility>

namespace skein {

namespace {

bool isLocal(const std::optional<IPAddress>& address) {
    if (!address) return false;
    const AddressScope scope = address->scope();
    return scope == AddressScope::loopback || scope == AddressScope::privateUse || scope == AddressScope::linkLocal;
}

std::vector<std::string> flatten(TrackerClient::Tiers tiers) {
    std::vector<std::string> trackers;
    for (auto& tier : tiers)
        for (auto& tracker : tier)
            if (trackers.size() < maxTrackersOfTorrent) trackers.push_back(std::move(tracker));
    return trackers;
}

std::string joined(const std::vector<std::string>& texts) {
    std::string line;
    for (const std::string& text : texts) line.append(line.empty() ? "" : ", ").append(text);
    return line;
}

std::string textOf(const boost::system::system_error& error) { return error.code().message(); }

}  // namespace

/// What several trackers found together, in the order in which they answered. Thread: the client's strand.
class TrackerClient::Merge {
public:
    explicit Merge(FileLogger& log) : log_(log) {}

    void add(AnnounceOutcome outcome) {
        for (PeerAddress& peer : outcome.peers) peers_.insert(std::move(peer));
    }

    std::vector<PeerAddress> takePeers() {
        log_.info("[Tracker] Total unique peers: ", peers_.size());
        std::vector<PeerAddress> list;
        list.reserve(peers_.size());
        while (!peers_.empty()) list.push_back(std::move(peers_.extract(peers_.begin()).value()));
        return list;
    }

private:
    FileLogger& log_;
    std::unordered_set<PeerAddress> peers_;
};

TrackerClient::TrackerClient(const asio::any_io_executor& pool, const TrackerServices& services, Bytes peerID,
                             std::uint16_t port)
    : services_(services),
      peerID_(std::move(peerID)),
      port_(port),
      udp_(services.clock, services.resolver, services.datagrams, services.udpExchanges),
      tasks_(pool) {}

asio::awaitable<std::vector<PeerAddress>> TrackerClient::announceAll(Tiers trackers, TrackerAnnounce what) {
    return tasks_.call(announceToAll(std::move(trackers), what));
}

asio::awaitable<std::vector<PeerAddress>> TrackerClient::announceOne(std::string tracker, TrackerAnnounce what) {
    return tasks_.call(peersOf(std::move(tracker), what));
}

asio::awaitable<TrackerAnnounceOutcome> TrackerClient::announceOneDetailed(std::string tracker, TrackerAnnounce what) {
    return tasks_.call(announceDetailed(std::move(tracker), what));
}

asio::awaitable<void> TrackerClient::stop() { return tasks_.stop(); }

asio::awaitable<std::vector<PeerAddress>> TrackerClient::announceToAll(Tiers tiers, TrackerAnnounce what) {
    const std::vector<std::string> trackers = flatten(std::move(tiers));
    services_.log.info("[Tracker] Will announce to ", trackers.size(), " trackers: ", joined(trackers));
    Merge merge(services_.log);
    const auto start = [&](const std::string& tracker) {
        return asio::co_spawn(tasks_.strand(), announceInto(merge, tracker, what), asio::deferred);
    };
    std::vector<decltype(start(std::string()))> children;
    children.reserve(trackers.size());
    for (const std::string& tracker : trackers) children.push_back(start(tracker));
    if (!children.empty()) {
        auto group = asio::experimental::make_parallel_group(std::move(children));
        const auto [order, failures] =
            co_await group.async_wait(asio::experimental::wait_for_all(), asio::use_awaitable);
        // None fails but by cancellation, which is then ours.
        for (const std::exception_ptr& failure : failures)
            if (failure) std::rethrow_exception(failure);
    }
    co_return merge.takePeers();
}

asio::awaitable<void> TrackerClient::announceInto(Merge& merge, std::string tracker, TrackerAnnounce what) {
    AnnounceOutcome outcome = co_await announceDetailed(std::move(tracker), what);
    merge.add(std::move(outcome));
}

asio::awaitable<std::vector<PeerAddress>> TrackerClient::peersOf(std::string tracker, TrackerAnnounce what) {
    AnnounceOutcome outcome = co_await announceDetailed(std::move(tracker), what);
    co_return std::move(outcome.peers);
}

asio::awaitable<TrackerAnnounceOutcome> TrackerClient::announceDetailed(std::string tracker, TrackerAnnounce what) {
    const asio::cancellation_state caller = co_await asio::this_coro::cancellation_state;
    AnnounceOutcome outcome;
    outcome.tracker = tracker;
    try {
        AnnounceResult result = co_await announce(std::move(tracker), what);
        outcome.peers = std::move(result.peers);
        outcome.interval = result.interval;
        outcome.complete = result.complete;
        outcome.incomplete = result.incomplete;
        outcome.isTrackerLocal = result.isTrackerLocal;
    } catch (const boost::system::system_error& error) {
        // What fails in the moment in which it is cancelled reports its own error; the caller is to see the
        // cancellation.
        if (caller.cancelled() != asio::cancellation_type::none)
            throw boost::system::system_error(asio::error::operation_aborted);
        outcome.error = textOf(error);
    } catch (const std::runtime_error& error) {
        outcome.error = withShownURLs(error.what());
    }
    logOutcome(outcome);
    co_return outcome;
}

void TrackerClient::logOutcome(const AnnounceOutcome& outcome) const {
    if (outcome.error) return services_.log.info("[Tracker] ", outcome.tracker, " → FAILED: ", *outcome.error);
    services_.log.info("[Tracker] ", outcome.tracker, " → ", outcome.peers.size(), " peers (seeders=", outcome.complete,
                       ", leechers=", outcome.incomplete, ")");
}

asio::awaitable<TrackerAnnounceResult> TrackerClient::announce(std::string tracker, TrackerAnnounce what) {
    if (tracker.starts_with("http://") || tracker.starts_with("https://"))
        return announceHTTP(std::move(tracker), what);
    return announceUDP(std::move(tracker), what);
}

asio::awaitable<TrackerAnnounceResult> TrackerClient::announceHTTP(std::string tracker, TrackerAnnounce what) {
    const auto url = TrackerURL::parse(tracker);
    if (!url) throw TrackerException(TrackerError::invalidURL);
    HTTPRequest request;
    request.url = TrackerRequest::httpURL(*url, what, peerID_, port_);
    request.connectTimeout = httpConnectTimeout;
    request.totalTimeout = httpTimeout;
    request.maxBodyBytes = maxReplyBytes;
    request.acceptsCompression = true;
    request.origin = what.origin;
    services_.log.info("[Tracker HTTP] Requesting: ", request.url);
    const HTTPResponse response = co_await fetch(std::move(request));
    services_.log.info("[Tracker HTTP] Response: ", response.status, ", ", response.body.size(), " bytes");
    auto reply = TrackerReply::parseHTTPAnnounceReply(response.body);
    if (reply.peers6) services_.log.info("[Tracker HTTP] peers6: ", *reply.peers6);
    reply.result.isTrackerLocal = isLocal(response.remoteAddress);
    co_return std::move(reply.result);
}

asio::awaitable<HTTPResponse> TrackerClient::fetch(HTTPRequest request) {
    const std::string url = request.url;
    try {
        HTTPResponse response = co_await services_.http.fetch(std::move(request));
        co_return response;
    } catch (const HTTPException& failure) {
        if (failure.error != HTTPError::invalidRequest) throw;
    }
    services_.log.info("[Tracker HTTP] Invalid URL: ", url);
    throw TrackerException(TrackerError::invalidURL);
}

asio::awaitable<TrackerAnnounceResult> TrackerClient::announceUDP(std::string tracker, TrackerAnnounce what) {
    const auto url = TrackerURL::parse(tracker);
    if (!url || url->scheme != "udp" || !url->port) throw TrackerException(TrackerError::invalidURL);
    std::string host = url->host;
    const UDPHelper::Line line = co_await udp_.connect(std::move(host), *url->port, what.origin);
    DatagramConnection* const connection = line.connection.get();

    Bytes request = TrackerRequest::udpConnect(services_.random.number());
    const Bytes welcome = co_await udp_.sendAndReceive(*connection, std::move(request), udpTimeout);

    TrackerRequest::UDPAnnounceNumbers numbers;
    numbers.connection = TrackerReply::parseUDPConnectReply(welcome);
    numbers.transaction = services_.random.number();
    numbers.key = services_.random.number();
    request = TrackerRequest::udpAnnounce(numbers, what, peerID_, port_);
    const Bytes answer = co_await udp_.sendAndReceive(*connection, std::move(request), udpTimeout);

    const IPAddress remote = connection->remoteAddress();
    const auto family = remote.isIPv4() ? PeerAddressFamily::ipv4 : PeerAddressFamily::ipv6;
    AnnounceResult result = TrackerReply::parseUDPAnnounceReply(answer, family);
    result.isTrackerLocal = isLocal(remote);
    co_return result;
}

}  // namespace skein
