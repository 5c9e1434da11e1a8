#include "tests/support/LoopbackDHT.h"

#include "Core/formats/BEncoder.h"
#include "public/common/SHA1.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace {

constexpr std::size_t closest = 8;

std::string compact(const IPAddress& host, std::uint16_t port) {
    Bytes bytes(host.bytes().begin(), host.bytes().end());
    appendBigEndian(bytes, port);
    return std::string(asText(bytes));
}

std::string hashOf(const std::string& text) { return std::string(asText(sha1(toBytes(text)))); }

std::string exclusiveOr(std::string_view left, std::string_view right) {
    std::string result(left);
    for (std::size_t i = 0; i < result.size(); ++i) result[i] = static_cast<char>(result[i] ^ right[i]);
    return result;
}

std::string textAt(const BEncodeValue& dictionary, std::string_view key) {
    return std::string(asText(dictionary.dataAt(key).value_or(ByteView())));
}

}  // namespace

LoopbackDHT::LoopbackDHT(const asio::any_io_executor& pool, Options options)
    : options_(std::move(options)), isIPv4_(IPAddress::parse(options_.address)->isIPv4()) {
    for (std::size_t i = 0; i < options_.nodes; ++i) {
        Node& node = nodes_.emplace_back();
        const auto port = static_cast<std::uint16_t>(options_.port == 0 ? 0 : options_.port + i);
        auto script = [this, &node](const ScriptedUDPServer::Seen& seen) { return answer(node, seen); };
        node.server = std::make_unique<ScriptedUDPServer>(pool, std::move(script), options_.address, port);
        node.id = hashOf("node " + std::to_string(i));
    }
}

asio::awaitable<void> LoopbackDHT::stop() {
    for (Node& node : nodes_) co_await node.server->stop();
}

void LoopbackDHT::addPeer(ByteView infoHash, const PeerAddress& peer) {
    for (Node& node : nodes_) node.peers[std::string(asText(infoHash))].insert(compact(*peer.literal(), peer.port));
}

std::vector<Bytes> LoopbackDHT::answer(Node& node, const ScriptedUDPServer::Seen& seen) try {
    const BEncodeValue query = BEncoder::decode(seen.datagram);
    const BEncodeValue* arguments = query["a"];
    const std::string method = textAt(query, "q");
    if (textAt(query, "y") != "q" || arguments == nullptr || textAt(*arguments, "id").size() != 20) return {};
    ++queries_[method];
    BEncodeValue::Dictionary values = valuesFor(node, method, *arguments, seen);
    if (values.empty()) return {};
    values.emplace_back("id", node.id);
    return {BEncoder::encode(BEncodeValue::Dictionary{{"t", textAt(query, "t")}, {"y", "r"}, {"r", values}})};
} catch (const BEncodeException&) {
    return {};
}

/// Nothing where the query is refused, which gets no answer.
BEncodeValue::Dictionary LoopbackDHT::valuesFor(Node& node, const std::string& method, const BEncodeValue& arguments,
                                                const ScriptedUDPServer::Seen& seen) {
    const char* nodesKey = isIPv4_ ? "nodes" : "nodes6";
    const std::string token = hashOf(node.id + seen.remote.text()).substr(0, 8);
    const std::string infoHash = textAt(arguments, "info_hash");
    if (method == "ping") return {{"v", "lo"}};
    if (method == "find_node") return {{nodesKey, closestNodes(textAt(arguments, "target"))}};
    if (method == "get_peers" && infoHash.size() == 20) {
        BEncodeValue::Dictionary values{{"token", token}, {nodesKey, closestNodes(infoHash)}};
        BEncodeValue::List peers;
        for (const std::string& peer : node.peers[infoHash]) peers.emplace_back(peer);
        if (!peers.empty()) values.emplace_back("values", std::move(peers));
        return values;
    }
    if (method == "announce_peer" && textAt(arguments, "token") == token) {
        const bool isImplied = arguments.intAt("implied_port").value_or(0) != 0;
        const auto named = static_cast<std::uint16_t>(arguments.intAt("port").value_or(0));
        node.peers[infoHash].insert(compact(seen.remote, isImplied ? seen.remotePort : named));
        return {{"v", "lo"}};
    }
    return {};
}

std::string LoopbackDHT::closestNodes(std::string_view target) const {
    if (target.size() != 20) return {};
    std::vector<const Node*> sorted;
    for (const Node& node : nodes_) sorted.push_back(&node);
    std::sort(sorted.begin(), sorted.end(), [&](const Node* left, const Node* right) {
        return exclusiveOr(left->id, target) < exclusiveOr(right->id, target);
    });
    std::string nodes;
    for (std::size_t i = 0; i < std::min(closest, sorted.size()); ++i)
        nodes += sorted[i]->id + compact(*IPAddress::parse(options_.address), sorted[i]->server->port());
    return nodes;
}

}  // namespace skein
