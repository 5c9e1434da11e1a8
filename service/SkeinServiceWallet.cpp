#include "public/common/PlainJSON.h"
#include "service/ServiceBody.h"
#include "service/SkeinServiceClient.h"

#include <cmath>
#include <utility>

namespace skein {

namespace {

namespace json = boost::json;

/// What the service says went wrong: its "error", else the body of a refusal.
std::string complaintIn(const ServiceAnswer& answer) {
    const auto body = parseBody(answer.body);
    if (body && body->is_object())
        if (const json::value* const text = body->get_object().if_contains("error");
            text != nullptr && text->is_string())
            return answer.quoted(text->get_string());
    if (answer.status == 0) return answer.failure;
    return answer.body.empty() ? "HTTP " + std::to_string(answer.status) : answer.quoted(answer.body);
}

}  // namespace

asio::awaitable<std::optional<WalletSettleResponse>> SkeinServiceClient::walletSettle() {
    auto request = co_await caller_.makeRequest("/api/wallet/settle", "POST", "settle");
    if (!request) co_return std::nullopt;
    ServiceAnswer answer = co_await caller_.send(std::move(*request));
    auto settled = recordIn<WalletSettleResponse>(answer);
    if (settled) {
        info("✓ settle edges=", settled->settledEdges, " balance=", creditText(settled->walletBalance));
    } else {
        warning("settle ", answer.whyNot());
    }
    co_return settled;
}

asio::awaitable<WalletActionResult> SkeinServiceClient::walletTransfer(std::string toUser, double amount,
                                                                       std::optional<std::string> note) {
    // JSON has no way to write the others.
    if (!std::isfinite(amount) || amount <= 0) co_return WalletError{"the amount must be above 0"};
    json::object body{{"to_user", toUser}, {"amount", amount}};
    if (note) body.emplace("note", *note);
    co_return co_await postWalletAction("/api/wallet/transfer", plainJSON(body), "transfer");
}

asio::awaitable<WalletActionResult> SkeinServiceClient::postWalletAction(std::string path, std::string body,
                                                                         std::string tag) {
    auto request = co_await caller_.makePost(std::move(path), std::move(body), tag);
    if (!request) {
        const ServiceAccess access = co_await caller_.access();
        co_return WalletError{access.userID.empty() ? "no user is signed in" : "skeinserver not configured"};
    }
    ServiceAnswer answer = co_await caller_.send(std::move(*request));
    if (answer.status == 0) {
        warning(tag, " error: ", answer.failure);
        co_return WalletError{"no response"};
    }
    const auto balance = recordIn<BalanceAnswer>(answer);
    if (balance) {
        info("✓ ", tag, " balance=", creditText(balance->walletBalance));
        co_return balance->walletBalance;
    }
    warning(tag, " ❌ ", answer.reason());
    co_return WalletError{complaintIn(answer)};
}

asio::awaitable<std::optional<WalletTransactionsPage>> SkeinServiceClient::walletTransactions(
    std::int64_t page, std::int64_t size, std::optional<std::string> txTypeFilter,
    std::optional<std::string> hashFilter) {
    ServiceCaller::Query query{{"page", std::to_string(page)}, {"size", std::to_string(size)}};
    if (txTypeFilter) query.emplace_back("tx_type", *txTypeFilter);
    if (hashFilter) query.emplace_back("info_hash", *hashFilter);
    auto request = co_await caller_.makeRequest("/api/wallet/transactions", "GET", "transactions", std::move(query));
    if (!request) co_return std::nullopt;
    ServiceAnswer answer = co_await caller_.send(std::move(*request));
    auto transactions = recordIn<WalletTransactionsPage>(answer);
    if (!transactions) warning("transactions ", answer.whyNot());
    co_return transactions;
}

asio::awaitable<std::optional<WalletPendingBreakdown>> SkeinServiceClient::walletPending(
    std::optional<std::string> hashFilter) {
    ServiceCaller::Query query;
    if (hashFilter) query.emplace_back("info_hash", *hashFilter);
    auto request = co_await caller_.makeRequest("/api/wallet/pending", "GET", "pending", std::move(query));
    if (!request) co_return std::nullopt;
    ServiceAnswer answer = co_await caller_.send(std::move(*request));
    auto pending = recordIn<WalletPendingBreakdown>(answer);
    if (!pending) warning("pending ", answer.whyNot());
    co_return pending;
}

}  // namespace skein
