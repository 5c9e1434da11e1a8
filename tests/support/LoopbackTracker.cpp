#include "tests/support/LoopbackTracker.h"

#include "Core/formats/BEncoder.h"
#include "public/common/IPAddress.h"

#include <boost/url/parse.hpp>

#include <array>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace skein {

namespace {

// What is remembered of a machine that announces without end; the oldest go.
constexpr std::size_t mostRemembered = 10'000;

using Query = std::map<std::string, std::string>;

Query queryOf(const std::string& target) {
    Query query;
    if (const auto url = boost::urls::parse_origin_form(target))
        for (const auto& item : url->params()) query[item.key] = item.value;
    return query;
}

Bytes compact(const std::vector<PeerAddress>& peers, bool wantsIPv6) {
    Bytes bytes;
    for (const PeerAddress& peer : peers) {
        const auto literal = peer.literal();
        if (!literal || literal->isIPv4() == wantsIPv6) continue;
        append(bytes, literal->bytes());
        appendBigEndian(bytes, peer.port);
    }
    return bytes;
}

Bytes udpError(ByteView transaction, std::string_view message) {
    Bytes datagram;
    appendBigEndian(datagram, std::uint32_t{3});
    append(datagram, transaction);
    append(datagram, toBytes(message));
    return datagram;
}

}  // namespace

LoopbackTracker::LoopbackTracker(const asio::any_io_executor& pool, Options options)
    : options_(std::move(options)),
      http_(
          pool, [this](const SeenHTTPRequest& request) { return answerHTTP(request); }, options_.address,
          options_.httpPort),
      udp_(
          pool, [this](const ScriptedUDPServer::Seen& seen) { return answerUDP(seen); }, options_.address,
          options_.udpPort) {}

asio::awaitable<void> LoopbackTracker::stop() {
    co_await http_.stop();
    co_await udp_.stop();
}

void LoopbackTracker::addPeer(ByteView infoHash, const PeerAddress& peer, bool isSeeder) {
    swarms_[std::string(asText(infoHash))][peer] = isSeeder;
}

LoopbackTracker::Answer LoopbackTracker::track(const Seen& announce) {
    if (announces_.size() == mostRemembered) announces_.erase(announces_.begin());
    announces_.push_back(announce);
    if (swarms_.size() == mostRemembered) swarms_.erase(swarms_.begin());
    Swarm& peers = swarms_[announce.infoHash];
    if (announce.event == "stopped") {
        peers.erase(announce.peer);
    } else {
        if (peers.size() == mostRemembered) peers.erase(peers.begin());
        peers[announce.peer] = announce.left == 0;
    }
    Answer answer;
    for (const auto& [peer, isSeeder] : peers) {
        ++(isSeeder ? answer.seeders : answer.leechers);
        if (peer != announce.peer && announce.event != "stopped" && answer.peers.size() < options_.maxPeers)
            answer.peers.push_back(peer);
    }
    return answer;
}

HTTPReply LoopbackTracker::answerHTTP(const SeenHTTPRequest& request) {
    if (!request.target.starts_with("/announce")) return HTTPReply::text("no such page", 404);
    Query query = queryOf(request.target);
    const auto number = [&query](const char* key) { return std::strtoll(query[key].c_str(), nullptr, 10); };
    const std::int64_t port = number("port");
    BEncodeValue::Dictionary reply;
    if (!options_.failureReason.empty()) {
        reply = {{"failure reason", options_.failureReason}};
    } else if (query["info_hash"].size() != 20 || port < 1 || port > 65'535 || !request.remote) {
        reply = {{"failure reason", "not a valid announce"}};
    } else {
        const Seen seen{query["info_hash"],   PeerAddress::from(*request.remote, static_cast<std::uint16_t>(port)),
                        number("downloaded"), number("uploaded"),
                        number("left"),       query["event"]};
        const Answer answer = track(seen);
        reply = {{"interval", options_.interval}, {"complete", answer.seeders}, {"incomplete", answer.leechers}};
        reply.emplace_back("peers", compact(answer.peers, false));
        const Bytes more = compact(answer.peers, true);
        if (!more.empty()) reply.emplace_back("peers6", more);
    }
    return HTTPReply::text(asText(BEncoder::encode(reply)));
}

std::vector<Bytes> LoopbackTracker::answerUDP(const ScriptedUDPServer::Seen& seen) {
    const ByteView datagram = seen.datagram;
    if (datagram.size() < 16) return {};
    const auto action = readBigEndian<std::uint32_t>(datagram.subspan(8));
    if (action == 0 && readBigEndian<std::uint64_t>(datagram) == 0x41727101980) return {answerConnect(datagram)};
    if (action == 1 && datagram.size() >= 98) return {answerAnnounce(seen)};
    return {udpError(datagram.subspan(12, 4), "unknown action")};
}

Bytes LoopbackTracker::answerConnect(ByteView datagram) {
    if (connections_.size() == mostRemembered) connections_.erase(connections_.begin());
    connections_.insert(++lastConnection_);
    Bytes answer(4);  // action 0
    append(answer, datagram.subspan(12, 4));
    appendBigEndian(answer, lastConnection_);
    return answer;
}

Bytes LoopbackTracker::answerAnnounce(const ScriptedUDPServer::Seen& seen) {
    const ByteView datagram = seen.datagram;
    const ByteView transaction = datagram.subspan(12, 4);
    if (connections_.count(readBigEndian<std::uint64_t>(datagram)) == 0)
        return udpError(transaction, "unknown connection");
    constexpr std::array<const char*, 4> events{"", "completed", "started", "stopped"};
    const auto event = readBigEndian<std::uint32_t>(datagram.subspan(80));
    const auto number = [&](std::size_t at) {
        return static_cast<std::int64_t>(readBigEndian<std::uint64_t>(datagram.subspan(at)));
    };
    const auto port = readBigEndian<std::uint16_t>(datagram.subspan(96));
    const Seen announce{std::string(asText(datagram.subspan(16, 20))),
                        PeerAddress::from(seen.remote, port),
                        number(56),
                        number(72),
                        number(64),
                        event < events.size() ? events[event] : ""};
    const Answer answer = track(announce);

    Bytes reply;
    appendBigEndian(reply, std::uint32_t{1});
    append(reply, transaction);
    appendBigEndian(reply, static_cast<std::uint32_t>(options_.interval));
    appendBigEndian(reply, static_cast<std::uint32_t>(answer.leechers));
    appendBigEndian(reply, static_cast<std::uint32_t>(answer.seeders));
    append(reply, compact(answer.peers, !seen.remote.isIPv4()));
    return reply;
}

}  // namespace skein
