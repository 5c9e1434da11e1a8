#include "downloads/PendingDeletes.h"

#include "public/common/FileLogger.h"

#include <sstream>

namespace skein {

namespace {

constexpr std::string_view blanks = " \t\r\n";

std::set<std::string> parsed(const std::string& text) {
    std::set<std::string> hashes;
    std::istringstream list(text);
    for (std::string hash; std::getline(list, hash, ',');)
        if (!hash.empty()) hashes.insert(hash);
    return hashes;
}

std::string joined(const std::set<std::string>& hashes) {
    std::string text;
    for (const std::string& hash : hashes) text += (text.empty() ? "" : ",") + hash;
    return text;
}

}  // namespace

std::string PendingDeletes::keyOf(std::string userID) {
    userID.erase(0, std::min(userID.find_first_not_of(blanks), userID.size()));
    userID.erase(userID.find_last_not_of(blanks) + 1);
    return "svc.pendingDeletes." + (userID.empty() ? "anonymous" : userID);
}

asio::awaitable<void> PendingDeletes::add(std::string userID, std::string infoHash) {
    return change(std::move(userID), std::move(infoHash), true);
}

asio::awaitable<void> PendingDeletes::remove(std::string userID, std::string infoHash) {
    return change(std::move(userID), std::move(infoHash), false);
}

asio::awaitable<void> PendingDeletes::change(std::string userID, std::string infoHash, bool isAdded) {
    // Read and written in one step: two processes may remove tasks at the same time.
    auto work = [key = keyOf(std::move(userID)), infoHash = std::move(infoHash), isAdded](SettingsStore& store) {
        SettingsStore::Change edit = [&](const std::optional<SettingValue>& stored) -> std::optional<SettingValue> {
            const auto* const text = stored ? std::get_if<std::string>(&*stored) : nullptr;
            std::set<std::string> hashes = parsed(text == nullptr ? "" : *text);
            if (isAdded) {
                hashes.insert(infoHash);
            } else {
                hashes.erase(infoHash);
            }
            if (hashes.empty()) return std::nullopt;
            return SettingValue(joined(hashes));
        };
        store.update(key, edit);
    };
    std::string failure;
    try {
        co_await settings_.with(std::move(work));
    } catch (const DatabaseException& error) {
        failure = error.what();
    }
    if (!failure.empty()) log_.warning("[Manager] remembering a pending delete failed: ", failure);
}

asio::awaitable<std::set<std::string>> PendingDeletes::all(std::string userID) {
    std::optional<std::string> text;
    try {
        text = co_await settings_.text(keyOf(std::move(userID)));
    } catch (const DatabaseException& error) {
        log_.warning("[Manager] reading the pending deletes failed: ", error.what());
    }
    co_return parsed(text.value_or(""));
}

}  // namespace skein
