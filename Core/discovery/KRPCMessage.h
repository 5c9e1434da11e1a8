#pragma once

#include "Core/discovery/DHTEndpoint.h"
#include "Core/discovery/DHTNodeInfo.h"
#include "Core/discovery/NodeID.h"
#include "Core/formats/BEncodeValue.h"
#include "public/common/Bytes.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace skein {

/// A datagram of the DHT that was understood as far as its kind; what it says is read when asked for, and is nothing
/// where it is missing or of the wrong shape. Views live as long as the message. Source: BEP 5, BEP 32.
class KRPCMessage {
public:
    enum class Kind : std::uint8_t { query, response, error };
    /// Ours have 2 bytes and deployed ones 2 to 8; a longer one would have us repeat what others made up.
    static constexpr std::size_t maxTransactionIDBytes = 32;
    /// Deployed ones have 4 to 20 bytes; it is kept, and repeated in a datagram of ours.
    static constexpr std::size_t maxTokenBytes = 128;

    /// Nothing when `datagram` is no bencoded dictionary with a transaction id and a known kind.
    static std::optional<KRPCMessage> decode(ByteView datagram);

    Kind kind() const noexcept { return kind_; }
    ByteView transactionID() const noexcept { return *root_.dataAt("t"); }
    /// Of a query; empty when it names none.
    std::string_view method() const noexcept { return root_.stringAt("q").value_or(std::string_view()); }
    /// Of the node that sent a query or a response.
    std::optional<NodeID> senderID() const noexcept { return idAt("id"); }
    std::optional<NodeID> target() const noexcept { return idAt("target"); }

    /// Of both families, in the order given.
    std::vector<DHTNodeInfo> nodes() const;
    std::vector<DHTEndpoint> peers() const;
    std::optional<ByteView> token() const noexcept;

private:
    KRPCMessage(BEncodeValue root, Kind kind) : root_(std::move(root)), kind_(kind) {}
    /// The arguments of a query or the values of a response; null when there are none.
    const BEncodeValue* body() const noexcept;
    std::optional<NodeID> idAt(std::string_view key) const noexcept;

    BEncodeValue root_;
    Kind kind_;
};

/// The messages that we send; each fits one small datagram.
namespace KRPC {

Bytes findNode(ByteView transactionID, const NodeID& own, const NodeID& target);
Bytes getPeers(ByteView transactionID, const NodeID& own, const NodeID& infoHash);
/// With "implied_port": the other side records the port that the datagram comes from, or `port` when it does not know
/// of that.
Bytes announcePeer(ByteView transactionID, const NodeID& own, const NodeID& infoHash, std::uint16_t port,
                   ByteView token);
Bytes buildResponse(ByteView transactionID, BEncodeValue::Dictionary values);

}  // namespace KRPC

}  // namespace skein
