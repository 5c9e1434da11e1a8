#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace skein {

/// What the service has confirmed of one torrent and the signed-in user, in all.
struct ResourceBalanceItem {
    std::string infoHash;
    std::string status;
    double earned = 0;  ///< credit
    double spent = 0;
    std::int64_t dlBytesPlatform = 0;  ///< downloaded from peers that the service listed
    std::int64_t dlBytesPublicBT = 0;
    std::int64_t dlBytesRelay = 0;
};

/// The rates that an answer of the service carries.
struct RatesPayload {
    double downloadCostRate = 0;
    double uploaderShareRatio = 0;
    std::optional<double> publicBTCostRate;
};

/// The rates that are in force.
struct SkeinRates {
    double downloadCostRate = 0;
    double uploaderShareRatio = 0;
    double publicBTCostRate = 0;

    /// In force until the service has sent others.
    static const SkeinRates defaults;

    void apply(const RatesPayload& sent) noexcept {
        downloadCostRate = sent.downloadCostRate;
        uploaderShareRatio = sent.uploaderShareRatio;
        publicBTCostRate = sent.publicBTCostRate.value_or(publicBTCostRate);
    }
};
inline constexpr SkeinRates SkeinRates::defaults{0.001, 0.5, 0.0};

/// The service's answer to a heartbeat.
struct HeartbeatBatchResult {
    bool ok = false;
    std::vector<ResourceBalanceItem> items;
    std::optional<RatesPayload> rates;  ///< absent: as they were
};

/// The signed-in user's credit.
struct UserBalanceResponse {
    bool ok = false;
    std::vector<ResourceBalanceItem> items;
    double walletBalance = 0;
    double walletBalanceConfirmed = 0;
    double pendingNet = 0;  ///< what settling everything now would add
};

}  // namespace skein
