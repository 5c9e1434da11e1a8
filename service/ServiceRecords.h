#pragma once

#include "Core/engine/ResourceBalance.h"
#include "Core/engine/ResourceRecords.h"
#include "Core/engine/ResourceTexts.h"
#include "service/JSONRecord.h"
#include "service/WalletRecords.h"

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <vector>

/// The service's records as they travel: which fields do, under which keys, and what is believed of them.
namespace skein {

/// The answer to "which peers hold this torrent?".
struct PeerListAnswer {
    std::vector<SkeinPeerInfo> peers;
};

/// The answer to a wallet action.
struct BalanceAnswer {
    double walletBalance = 0;
};

BOOST_DESCRIBE_ENUM(ResourceStatus, offline, leeching, leechingSeeding, seeding)
BOOST_DESCRIBE_ENUM(UploadMode, paid, free, disabled)

// Sent. What is not listed stays here.
BOOST_DESCRIBE_STRUCT(ResourceRegistration, (), (infoHash, status, uploadMode, localIP, port, totalBytes))
BOOST_DESCRIBE_STRUCT(PeerReport, (), (peerUserId, verifiedBytes, sentBytes))
BOOST_DESCRIBE_STRUCT(HeartbeatPayload, (), (eventID, infoHash, status, uploadMode, uploadDelta, downloadDelta, peers))

// Received.
BOOST_DESCRIBE_STRUCT(SkeinPeerInfo, (), (userId, ip, port, localIP, uploadMode, speedLimit, selfLAN, preferLocal))
BOOST_DESCRIBE_STRUCT(PeerListAnswer, (), (peers))
BOOST_DESCRIBE_STRUCT(ResourceBalanceItem, (),
                      (infoHash, status, earned, spent, dlBytesPlatform, dlBytesPublicBT, dlBytesRelay))
BOOST_DESCRIBE_STRUCT(RatesPayload, (), (downloadCostRate, uploaderShareRatio, publicBTCostRate))
BOOST_DESCRIBE_STRUCT(HeartbeatBatchResult, (), (ok, items, rates))
BOOST_DESCRIBE_STRUCT(UserBalanceResponse, (), (ok, items, walletBalance, walletBalanceConfirmed, pendingNet))
BOOST_DESCRIBE_STRUCT(BalanceAnswer, (), (walletBalance))
BOOST_DESCRIBE_STRUCT(WalletSettleResponse, (), (ok, settledEdges, walletBalance))
BOOST_DESCRIBE_STRUCT(WalletTransaction, (),
                      (id, txType, fromUser, toUser, amount, bytesTransferred, infoHash, createdAt, direction))
BOOST_DESCRIBE_STRUCT(WalletTransactionsPage, (), (ok, items, page, size, total))
BOOST_DESCRIBE_STRUCT(WalletPendingItem, (),
                      (id, txType, infoHash, peer, direction, downloaderBytes, uploaderBytes, pendingSpent,
                       pendingEarned, updatedAt))
BOOST_DESCRIBE_STRUCT(WalletPendingBreakdown, (), (ok, out, in, totalSpent, totalEarned, netPending))

namespace JSONRecord {

template <class Number>
constexpr bool areNotNegative(std::initializer_list<Number> numbers) noexcept {
    return std::all_of(numbers.begin(), numbers.end(), [](Number number) { return number >= 0; });
}

template <>
struct Rules<PeerReport> : PlainRules {
    static constexpr std::string_view keyOf(std::string_view field) noexcept {
        return field == "peerUserId" ? "peer_user" : "";
    }
};

/// What is said of a peer comes from that peer's own client: one that says nonsense must not hide the others.
template <>
struct Rules<SkeinPeerInfo> : PlainRules {
    static constexpr bool skipsUnreadable = true;
    static constexpr bool mayBeMissing(std::string_view field) noexcept {
        return field != "userId" && field != "ip" && field != "port";
    }
    static bool isPlausible(const SkeinPeerInfo& peer) noexcept {
        return !peer.userId.empty() && !peer.ip.empty() && peer.port > 0 && peer.speedLimit >= 0;
    }
};

template <>
struct Rules<ResourceBalanceItem> : PlainRules {
    static bool isPlausible(const ResourceBalanceItem& item) noexcept {
        return areNotNegative({item.dlBytesPlatform, item.dlBytesPublicBT, item.dlBytesRelay});
    }
};

template <>
struct Rules<RatesPayload> : PlainRules {
    static bool isPlausible(const RatesPayload& rates) noexcept {
        return areNotNegative({rates.downloadCostRate, rates.uploaderShareRatio, rates.publicBTCostRate.value_or(0)});
    }
};

template <>
struct Rules<WalletSettleResponse> : PlainRules {
    static bool isPlausible(const WalletSettleResponse& answer) noexcept { return answer.settledEdges >= 0; }
};

/// A transfer is about no torrent, and what the service itself gives or takes is from or to nobody.
template <>
struct Rules<WalletTransaction> : PlainRules {
    static constexpr bool mayBeMissing(std::string_view field) noexcept {
        return field == "infoHash" || field == "fromUser" || field == "toUser";
    }
    static bool isPlausible(const WalletTransaction& transaction) noexcept { return transaction.bytesTransferred >= 0; }
};

template <>
struct Rules<WalletTransactionsPage> : PlainRules {
    static bool isPlausible(const WalletTransactionsPage& page) noexcept {
        return areNotNegative({page.page, page.size, page.total});
    }
};

template <>
struct Rules<WalletPendingItem> : PlainRules {
    static bool isPlausible(const WalletPendingItem& item) noexcept {
        return areNotNegative({item.downloaderBytes, item.uploaderBytes});
    }
};

}  // namespace JSONRecord

}  // namespace skein
