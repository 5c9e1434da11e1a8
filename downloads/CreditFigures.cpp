#include "downloads/CreditFigures.h"

#include <algorithm>
#include <ctime>
#include <optional>

namespace skein {

namespace {

constexpr const char* dayKey = "svc.today";
constexpr const char* userKey = "svc.todayUser";
constexpr const char* earnedKey = "svc.todayEarned";
constexpr const char* spentKey = "svc.todaySpent";

double numberIn(SettingsStore& store, const char* key) {
    const std::optional<SettingValue> value = store.get(key);
    const auto* const number = value ? std::get_if<double>(&*value) : nullptr;
    return number == nullptr ? 0 : *number;
}

}  // namespace

std::string CreditFigures::today() const {
    const std::time_t now = std::chrono::system_clock::to_time_t(
        std::chrono::time_point_cast<std::chrono::system_clock::duration>(clock_.wallNow()));
    std::tm local{};
    ::localtime_r(&now, &local);
    char text[16];
    std::strftime(text, sizeof text, "%Y-%m-%d", &local);
    return text;
}

asio::awaitable<void> CreditFigures::load() {
    struct Kept {
        std::string user;
        std::string day;
        double earned = 0;
        double spent = 0;
    };
    auto read = [](SettingsStore& store) {
        return Kept{store.text(userKey).value_or(""), store.text(dayKey).value_or(""), numberIn(store, earnedKey),
                    numberIn(store, spentKey)};
    };
    std::string failure;
    try {
        const Kept kept = co_await settings_.with(std::move(read));
        user_ = kept.user;
        day_ = kept.day;
        todayEarned_ = kept.earned;
        todaySpent_ = kept.spent;
    } catch (const DatabaseException& error) {
        failure = error.what();
    }
    if (!failure.empty()) log_.warning("[Manager] reading today's credit failed: ", failure);
    rollOver();
}

asio::awaitable<void> CreditFigures::save() {
    auto write = [user = user_, day = day_, earned = todayEarned_, spent = todaySpent_](SettingsStore& store) {
        store.set(userKey, user);
        store.set(dayKey, day);
        store.set(earnedKey, earned);
        store.set(spentKey, spent);
    };
    std::string failure;
    try {
        co_await settings_.with(std::move(write));
    } catch (const DatabaseException& error) {
        failure = error.what();
    }
    if (!failure.empty()) log_.warning("[Manager] keeping today's credit failed: ", failure);
}

bool CreditFigures::rollOver() {
    std::string day = today();
    if (day == day_) return false;
    day_ = std::move(day);
    todayEarned_ = todaySpent_ = 0;
    return true;
}

void CreditFigures::beginUser(const std::string& userID) {
    if (user_ != userID) forgetUser();
    user_ = userID;
}

void CreditFigures::forgetUser() {
    user_.clear();
    todayEarned_ = todaySpent_ = 0;
    walletBalanceConfirmed_ = walletPendingNet_ = 0;
    rates_ = SkeinRates::defaults;
    confirmed_.clear();
    isAccountKnown_ = false;
}

void CreditFigures::applyConfirmed(const ResourceBalanceItem& item) {
    rollOver();
    const auto [entry, isNew] = confirmed_.try_emplace(item.infoHash);
    // Of a torrent never heard of, all that is confirmed may be of days ago.
    if (!isNew || isAccountKnown_) {
        todayEarned_ += std::max(item.earned - entry->second.earned, 0.0);
        todaySpent_ += std::max(item.spent - entry->second.spent, 0.0);
    }
    entry->second = {item.earned, item.spent};
}

void CreditFigures::applyBalance(const UserBalanceResponse& balance) {
    walletBalanceConfirmed_ = balance.walletBalanceConfirmed;
    walletPendingNet_ = balance.pendingNet;
    if (isAccountKnown_) return;
    isAccountKnown_ = true;
    for (const ResourceBalanceItem& item : balance.items)
        confirmed_.try_emplace(item.infoHash, Confirmed{item.earned, item.spent});
}

double CreditFigures::costOf(std::int64_t platformAndRelayBytes, std::int64_t publicBTBytes) const noexcept {
    return (static_cast<double>(platformAndRelayBytes) * rates_.downloadCostRate +
            static_cast<double>(publicBTBytes) * rates_.publicBTCostRate) /
           rateUnitBytes;
}

double CreditFigures::shareFor(std::int64_t uploadedBytes) const noexcept {
    return static_cast<double>(uploadedBytes) * rates_.downloadCostRate * rates_.uploaderShareRatio / rateUnitBytes;
}

}  // namespace skein
