#pragma once

#include "Core/engine/ResourceBalance.h"
#include "Core/engine/ResourceGateway.h"
#include "service/ServiceCaller.h"
#include "service/WalletRecords.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// The client of the resource service: one operation an endpoint, each of which sends at most one request.
///
/// Nothing throws but the end by cancellation (boost::system::system_error, operation_aborted). Whatever went wrong (no
/// user, no service, no answer within 30 s, another status than 2xx, an answer that is not understood) is logged, and
/// the result is false, absent or an empty list. Nothing is tried again here.
///
/// Owner: the program, one for all. `http`, `clock` and `log` outlive it. Thread: any, any number of calls at once; it
/// has no state.
class SkeinServiceClient final : public ResourceGateway {
public:
    SkeinServiceClient(HTTPFetcher& http, ServiceAccount account, Clock& clock, FileLogger& log);

    asio::awaitable<ServiceAccess> access() override;

    // What is held here. True once the service has confirmed it.
    asio::awaitable<bool> registerResource(ResourceRegistration registration) override;
    asio::awaitable<bool> unregister(std::string infoHash);
    asio::awaitable<bool> markComplete(std::string infoHash);
    asio::awaitable<bool> deleteResource(std::string infoHash);
    /// Everything of this device.
    asio::awaitable<bool> releaseResourcesForLogout();

    /// Absent: not confirmed, and to be sent again as it was. Whether the service took it says `ok`.
    asio::awaitable<std::optional<HeartbeatBatchResult>> batchHeartbeat(std::vector<HeartbeatPayload> items);
    asio::awaitable<std::optional<UserBalanceResponse>> fetchBalance();
    /// A peer of which nonsense is said is left out.
    asio::awaitable<std::vector<SkeinPeerInfo>> getPeers(std::string infoHash, std::string mode) override;

    // The wallet.
    asio::awaitable<std::optional<WalletSettleResponse>> walletSettle();
    /// `amount` in credit, above 0. A failure without an answer does not say whether the service took it.
    asio::awaitable<WalletActionResult> walletTransfer(std::string toUser, double amount,
                                                       std::optional<std::string> note);
    /// `page` as the service counts them; `size` transactions a page.
    asio::awaitable<std::optional<WalletTransactionsPage>> walletTransactions(std::int64_t page, std::int64_t size,
                                                                              std::optional<std::string> txTypeFilter,
                                                                              std::optional<std::string> hashFilter);
    asio::awaitable<std::optional<WalletPendingBreakdown>> walletPending(std::optional<std::string> hashFilter);

private:
    template <class... Parts>
    void info(const Parts&... parts) const {
        caller_.note(LogLevel::info, parts...);
    }
    template <class... Parts>
    void warning(const Parts&... parts) const {
        caller_.note(LogLevel::warning, parts...);
    }
    asio::awaitable<bool> fireForTorrent(std::string path, std::string name, std::string infoHash);
    void noteItems(const std::vector<HeartbeatPayload>& items) const;
    asio::awaitable<WalletActionResult> postWalletAction(std::string path, std::string body, std::string tag);

    const ServiceCaller caller_;
};

}  // namespace skein
