#include "app/api/AccountRoutes.h"

#include "app/api/JSONBody.h"
#include "downloads/DownloadManager.h"
#include "public/common/ErrorText.h"
#include "service/ServiceRecords.h"

#include <boost/json/object.hpp>
#include <boost/json/value_from.hpp>

#include <charconv>
#include <cmath>

namespace skein {

namespace {

namespace json = boost::json;

constexpr std::string_view noAnswer = "the service did not answer, or refused; the log says more";

/// The record as the program names its fields, or 502.
template <class Record>
HTTPServerResponse recordOr502(const std::optional<Record>& record) {
    return record ? jsonReply(json::value_from(*record)) : Router::error(502, noAnswer);
}

std::optional<std::string> filterIn(HTTPServerRequest& request, const std::string& name) {
    const std::string& value = request.query[name];
    return value.empty() ? std::nullopt : std::optional(value);
}

/// A number of 1 or more; 0 for what is none.
std::int64_t countIn(HTTPServerRequest& request, const std::string& name, std::int64_t unset) {
    const std::string& text = request.query[name];
    if (text.empty()) return unset;
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() && number > 0 ? number : 0;
}

}  // namespace

AccountRoutes::AccountRoutes(SkeinServiceClient& service, ServiceAccount account, DownloadManager* manager,
                             std::function<void()> onChanged)
    : service_(service), account_(std::move(account)), manager_(manager), onChanged_(std::move(onChanged)) {}

void AccountRoutes::addTo(Router& router) {
    router.add("GET", "/api/v1/account", this, &AccountRoutes::show);
    router.add("POST", "/api/v1/account/login", this, &AccountRoutes::login);
    router.add("POST", "/api/v1/account/logout", this, &AccountRoutes::logout);
    router.add("GET", "/api/v1/wallet/balance", this, &AccountRoutes::balance);
    router.add("GET", "/api/v1/wallet/pending", this, &AccountRoutes::pending);
    router.add("GET", "/api/v1/wallet/transactions", this, &AccountRoutes::transactions);
    router.add("POST", "/api/v1/wallet/settle", this, &AccountRoutes::settle);
    router.add("POST", "/api/v1/wallet/transfer", this, &AccountRoutes::transfer);
}

// --- the account -----------------------------------------------------------------------------------------------------

asio::awaitable<HTTPServerResponse> AccountRoutes::show(std::string, HTTPServerRequest) {
    const json::object shown = co_await account();
    co_return jsonReply(shown);
}

asio::awaitable<json::object> AccountRoutes::account() {
    const ServiceAccess access = co_await service_.access();
    json::object shown{{"user", access.userID}, {"serverURL", access.serverURL}};
    if (manager_ != nullptr) {
        const CreditFigures& credit = manager_->credit();
        shown["totalBalance"] = credit.displayedWalletBalance();
        shown["walletBalanceConfirmed"] = credit.walletBalanceConfirmed();
        shown["walletPendingNet"] = credit.walletPendingNet();
        shown["todayEarned"] = credit.todayEarned();
        shown["todaySpent"] = credit.todaySpent();
        shown["downloadCostRate"] = credit.rates().downloadCostRate;
        shown["uploaderShareRatio"] = credit.rates().uploaderShareRatio;
        shown["publicBTCostRate"] = credit.rates().publicBTCostRate;
    }
    co_return shown;
}

/// An object with `user` and `credential`. Another user who is signed in is signed out first.
asio::awaitable<HTTPServerResponse> AccountRoutes::login(std::string, HTTPServerRequest request) {
    std::optional<ServiceAccount::Login> login;
    std::string failure;
    try {
        const json::object body = objectIn(request);
        login = ServiceAccount::loginOf(body.at("user").as_string(), body.at("credential").as_string());
        if (!login) failure = "the user or the credential cannot be used";
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    if (!failure.empty()) co_return Router::error(400, failure);
    try {
        const ServiceAccess before = co_await service_.access();
        if (!before.userID.empty() && before.userID != login->userID) co_await signOut();
        co_await account_.signIn(std::move(login->userID), std::move(login->credential));
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    onChanged_();  // also when the old user was signed out, and the new one could not be signed in
    if (!failure.empty()) co_return Router::error(500, failure);
    if (manager_ != nullptr) manager_->syncWithServer();
    json::object shown = co_await account();
    if (!shown.at("serverURL").as_string().empty()) {
        const auto balance = co_await service_.fetchBalance();
        shown["isChecked"] = balance.has_value();
    }
    co_return jsonReply(shown);
}

asio::awaitable<HTTPServerResponse> AccountRoutes::logout(std::string, HTTPServerRequest) {
    const ServiceAccess access = co_await service_.access();
    if (access.userID.empty()) co_return Router::error(409, "nobody is signed in");
    std::string failure;
    try {
        co_await signOut();
    } catch (const DatabaseException& error) {
        failure = error.what();
    }
    onChanged_();
    co_return failure.empty() ? jsonDone() : Router::error(500, failure);
}

asio::awaitable<void> AccountRoutes::signOut() {
    if (manager_ != nullptr) {
        co_await manager_->prepareForAccountLogout();
    } else {
        co_await service_.releaseResourcesForLogout();
    }
    co_await account_.signOut();
}

// --- the wallet ------------------------------------------------------------------------------------------------------

asio::awaitable<std::optional<HTTPServerResponse>> AccountRoutes::refusal() {
    const ServiceAccess access = co_await service_.access();
    if (access.serverURL.empty()) co_return Router::error(409, "skeinserver not configured");
    if (access.userID.empty()) co_return Router::error(409, "nobody is signed in");
    co_return std::nullopt;
}

asio::awaitable<HTTPServerResponse> AccountRoutes::balance(std::string, HTTPServerRequest) {
    if (auto refused = co_await refusal()) co_return std::move(*refused);
    const auto answer = co_await service_.fetchBalance();
    co_return recordOr502(answer);
}

asio::awaitable<HTTPServerResponse> AccountRoutes::pending(std::string, HTTPServerRequest request) {
    if (auto refused = co_await refusal()) co_return std::move(*refused);
    std::optional<std::string> hash = filterIn(request, "infoHash");
    const auto answer = co_await service_.walletPending(std::move(hash));
    co_return recordOr502(answer);
}

asio::awaitable<HTTPServerResponse> AccountRoutes::transactions(std::string, HTTPServerRequest request) {
    if (auto refused = co_await refusal()) co_return std::move(*refused);
    const std::int64_t page = countIn(request, "page", 1);
    const std::int64_t size = countIn(request, "size", 20);
    if (page == 0 || size == 0) co_return Router::error(400, "page and size are numbers above 0");
    std::optional<std::string> type = filterIn(request, "type");
    std::optional<std::string> hash = filterIn(request, "infoHash");
    const auto answer = co_await service_.walletTransactions(page, size, std::move(type), std::move(hash));
    co_return recordOr502(answer);
}

asio::awaitable<HTTPServerResponse> AccountRoutes::settle(std::string, HTTPServerRequest) {
    if (auto refused = co_await refusal()) co_return std::move(*refused);
    const auto answer = co_await service_.walletSettle();
    if (manager_ != nullptr) manager_->refreshCredit();  // also when only the answer was lost
    co_return recordOr502(answer);
}

/// An object with `toUser`, `amount` and, if there is one, a `note`.
asio::awaitable<HTTPServerResponse> AccountRoutes::transfer(std::string, HTTPServerRequest request) {
    if (auto refused = co_await refusal()) co_return std::move(*refused);
    std::string toUser;
    double amount = 0;
    std::optional<std::string> note;
    std::string failure;
    try {
        const json::object body = objectIn(request);
        toUser = body.at("toUser").as_string();
        amount = body.at("amount").to_number<double>();
        if (const auto* const text = body.if_contains("note"); text != nullptr && !text->is_null())
            note = std::string(text->as_string());
    } catch (const std::exception& error) {
        failure = textOf(error);
    }
    if (failure.empty() && (toUser.empty() || !std::isfinite(amount) || amount <= 0))
        failure = "a user, and an amount above 0, are needed";
    if (!failure.empty()) co_return Router::error(400, failure);
    const WalletActionResult result = co_await service_.walletTransfer(std::move(toUser), amount, std::move(note));
    if (manager_ != nullptr) manager_->refreshCredit();
    if (const auto* const error = std::get_if<WalletError>(&result)) co_return Router::error(502, error->description);
    co_return jsonReply(json::object{{"walletBalance", std::get<double>(result)}});
}

}  // namespace skein
