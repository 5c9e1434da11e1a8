#include "app/client/AccountCommand.h"
#include "public/common/ByteCountText.h"
#include "public/common/PlainJSON.h"
#include "public/common/Printable.h"

#include <CLI/CLI.hpp>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <cmath>
#include <cstdio>
#include <iostream>
#include <string>

namespace skein {

namespace {

namespace json = boost::json;

std::string credit(const json::value& amount) {
    char text[32];
    std::snprintf(text, sizeof text, "%.4f", amount.to_number<double>());
    return text;
}

std::string text(const json::value& record, std::string_view key) {
    return printable(std::string(record.at(key).as_string()));
}

std::string bytes(const json::value& record, std::string_view key) {
    return formatByteCount(record.at(key).to_number<std::int64_t>());
}

std::string shortHash(const json::value& record) { return text(record, "infoHash").substr(0, 12); }

void printTransactions(const json::value& page) {
    for (const json::value& item : page.at("items").as_array())
        std::cout << text(item, "createdAt") << "  " << text(item, "direction") << "  " << credit(item.at("amount"))
                  << "  " << text(item, "txType") << "  " << text(item, "fromUser") << " → " << text(item, "toUser")
                  << "  " << bytes(item, "bytesTransferred") << "  " << shortHash(item) << '\n';
    std::cout << "page " << page.at("page").to_number<std::int64_t>() << ", "
              << page.at("total").to_number<std::int64_t>() << " transactions in all\n";
}

void printPending(const json::value& breakdown) {
    const auto list = [&](const char* key, const char* amountKey, const char* bytesKey, const char* heading) {
        for (const json::value& item : breakdown.at(key).as_array())
            std::cout << heading << ' ' << text(item, "peer") << "  " << credit(item.at(amountKey)) << "  "
                      << bytes(item, bytesKey) << "  " << shortHash(item) << '\n';
    };
    list("out", "pendingSpent", "downloaderBytes", "to");
    list("in", "pendingEarned", "uploaderBytes", "from");
    std::cout << "spent " << credit(breakdown.at("totalSpent")) << ", earned " << credit(breakdown.at("totalEarned"))
              << ", net " << credit(breakdown.at("netPending")) << '\n';
}

/// CLI11's own check would name the largest number there is.
std::string checkAmount(const std::string& text) {
    double amount = 0;
    return CLI::detail::lexical_cast(text, amount) && amount > 0 && std::isfinite(amount) ? "" : "Not above 0: " + text;
}

class WalletCommand final : public AccountCommand {
public:
    WalletCommand()
        : AccountCommand({"wallet", "Show and move the credit at the resource service", "skein wallet balance"}) {}

    void declare(CLI::App& options) override {
        balance_ = options.add_subcommand("balance", "What there is, and what is pending");
        pending_ = options.add_subcommand("pending", "What waits to be settled, by user and torrent");
        transactions_ = options.add_subcommand("transactions", "What came and went, newest first");
        settle_ = options.add_subcommand("settle", "Turn what is pending into balance");
        transfer_ = options.add_subcommand("transfer", "Give credit to another user");
        for (CLI::App* const one : {balance_, pending_, transactions_, settle_, transfer_})
            one->add_flag("--json", isJSON_, "One JSON object");
        for (CLI::App* const one : {pending_, transactions_})
            one->add_option("--hash", infoHash_, "Of this torrent alone")->type_name("INFO-HASH");
        transactions_->add_option("--page", page_, "Which page, from 1")->check(CLI::Range(1, 1'000'000));
        transactions_->add_option("--size", size_, "Transactions a page")->check(CLI::Range(1, 1'000));
        transactions_->add_option("--type", type_, "Of this type alone");
        transfer_->add_option("USER", toUser_, "Who is to have it")->required();
        transfer_->add_option("AMOUNT", amount_, "How much")->required()->check(CLI::Validator(checkAmount, ""));
        transfer_->add_option("--note", note_, "What for")->type_name("TEXT");
        options.require_subcommand(1);
    }

protected:
    int talk(APIPort& port) override {
        const json::value answer = ask(port);
        if (isJSON_) {
            std::cout << plainJSON(answer) << '\n';
        } else if (*balance_) {
            std::cout << "balance " << credit(answer.at("walletBalance")) << " (confirmed "
                      << credit(answer.at("walletBalanceConfirmed")) << ", pending " << credit(answer.at("pendingNet"))
                      << ")\n";
        } else if (*pending_) {
            printPending(answer);
        } else if (*transactions_) {
            printTransactions(answer);
        } else {
            std::cout << "balance " << credit(answer.at("walletBalance")) << '\n';
        }
        return exitStatus::done;
    }

private:
    json::value ask(APIPort& port) const {
        if (*balance_) return port.get("api/v1/wallet/balance");
        if (*pending_) return port.get("api/v1/wallet/pending?infoHash=" + percentEncoded(infoHash_));
        if (*transactions_)
            return port.get("api/v1/wallet/transactions?page=" + std::to_string(page_) +
                            "&size=" + std::to_string(size_) + "&type=" + percentEncoded(type_) +
                            "&infoHash=" + percentEncoded(infoHash_));
        if (*settle_) return port.post("api/v1/wallet/settle");
        json::object order{{"toUser", toUser_}, {"amount", amount_}};
        if (!note_.empty()) order["note"] = note_;
        return port.post("api/v1/wallet/transfer", order);
    }

    CLI::App* balance_ = nullptr;
    CLI::App* pending_ = nullptr;
    CLI::App* transactions_ = nullptr;
    CLI::App* settle_ = nullptr;
    CLI::App* transfer_ = nullptr;
    bool isJSON_ = false;
    std::int64_t page_ = 1;
    std::int64_t size_ = 20;
    std::string infoHash_;
    std::string type_;
    std::string toUser_;
    double amount_ = 0;
    std::string note_;
};

}  // namespace

std::unique_ptr<Command> makeWalletCommand() { return std::make_unique<WalletCommand>(); }

}  // namespace skein
