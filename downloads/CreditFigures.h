#pragma once

#include "Core/engine/ResourceBalance.h"
#include "public/common/ActorSettings.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"

#include <map>
#include <string>

namespace skein {

/// The user's credit: what the service has confirmed, what came and went today, and the rates in force.
///
/// Owner: the heartbeat. Thread: the main executor. What cannot be read or written of it is logged.
class CreditFigures {
public:
    /// The rates are for so many bytes.
    static constexpr double rateUnitBytes = 1024.0 * 1024.0;

    CreditFigures(Clock& clock, ActorSettings settings, FileLogger& log)
        : clock_(clock), settings_(std::move(settings)), log_(log) {}

    /// Today's totals, as they were left.
    asio::awaitable<void> load();
    asio::awaitable<void> save();
    /// Another user's figures say nothing of this one's.
    void forgetUser();
    /// The totals go on if they are this user's.
    void beginUser(const std::string& userID);
    /// What a confirmed heartbeat says of a torrent: what is new of it is today's.
    void applyConfirmed(const ResourceBalanceItem& item);
    /// What the account says in all: of it nothing is today's.
    void applyBalance(const UserBalanceResponse& balance);
    void applyRates(const RatesPayload& rates) noexcept { rates_.apply(rates); }
    /// At local midnight the day's totals begin anew. True when they did.
    bool rollOver();

    double todayEarned() const noexcept { return todayEarned_; }
    double todaySpent() const noexcept { return todaySpent_; }
    double walletBalanceConfirmed() const noexcept { return walletBalanceConfirmed_; }
    double walletPendingNet() const noexcept { return walletPendingNet_; }
    double displayedWalletBalance() const noexcept { return walletBalanceConfirmed_ + walletPendingNet_; }
    const SkeinRates& rates() const noexcept { return rates_; }
    /// What so many bytes from each source cost, at the rates in force.
    double costOf(std::int64_t platformAndRelayBytes, std::int64_t publicBTBytes) const noexcept;
    double shareFor(std::int64_t uploadedBytes) const noexcept;

private:
    struct Confirmed {
        double earned = 0;
        double spent = 0;
    };

    std::string today() const;

    Clock& clock_;
    const ActorSettings settings_;
    FileLogger& log_;
    std::string user_;  // of the totals
    std::string day_;   // of the totals, "2026-11-23", local
    double todayEarned_ = 0;
    double todaySpent_ = 0;
    double walletBalanceConfirmed_ = 0;
    double walletPendingNet_ = 0;
    SkeinRates rates_ = SkeinRates::defaults;
    std::map<std::string, Confirmed> confirmed_;  // by info-hash
    bool isAccountKnown_ = false;                 // a torrent that it did not list had nothing confirmed
};

}  // namespace skein
