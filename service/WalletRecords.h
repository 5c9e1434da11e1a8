#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace skein {

/// What came of a settlement.
struct WalletSettleResponse {
    bool ok = false;
    std::int64_t settledEdges = 0;  ///< pending amounts between two users that were settled
    double walletBalance = 0;
};

struct WalletTransaction {
    std::int64_t id = 0;
    std::string txType;  ///< as the service names it
    std::string fromUser;
    std::string toUser;
    double amount = 0;
    std::int64_t bytesTransferred = 0;
    std::string infoHash;
    std::string createdAt;  ///< a date, as the service writes it
    std::string direction;  ///< "in" or "out", as the signed-in user sees it
};

struct WalletTransactionsPage {
    bool ok = false;
    std::vector<WalletTransaction> items;
    std::int64_t page = 0;
    std::int64_t size = 0;
    std::int64_t total = 0;  ///< transactions in all pages
};

/// What waits to be settled with one user over one torrent.
struct WalletPendingItem {
    std::int64_t id = 0;
    std::string txType;
    std::string infoHash;
    std::string peer;  ///< the other user
    std::string direction;
    std::int64_t downloaderBytes = 0;  ///< as the one who downloaded reported them
    std::int64_t uploaderBytes = 0;
    double pendingSpent = 0;
    double pendingEarned = 0;
    std::string updatedAt;
};

struct WalletPendingBreakdown {
    bool ok = false;
    std::vector<WalletPendingItem> out;  ///< what the user owes
    std::vector<WalletPendingItem> in;   ///< what the user is owed
    double totalSpent = 0;
    double totalEarned = 0;
    double netPending = 0;
};

/// Why a wallet action failed, for the user to read: one printable line.
struct WalletError {
    std::string description;
};

/// The new balance, or why there is none.
using WalletActionResult = std::variant<double, WalletError>;

}  // namespace skein
