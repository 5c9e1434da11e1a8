#include "service/ServiceAccount.h"

#include "public/common/UUID.h"

#include <algorithm>
#include <utility>

namespace skein {

namespace {

std::string trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) return {};
    return std::string(text.substr(first, text.find_last_not_of(blanks) - first + 1));
}

/// Both travel as headers.
bool canBeSent(std::string_view text) {
    const auto isControl = [](char character) {
        return static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
    };
    return !text.empty() && std::none_of(text.begin(), text.end(), isControl);
}

/// Two processes that start for the first time agree on one id.
std::string deviceIdOf(SettingsStore& store, Random& random) {
    if (auto known = store.text(ServiceAccount::deviceIdKey); known && !known->empty()) return *known;
    std::string id;
    const SettingsStore::Change choose = [&](const std::optional<SettingValue>& stored) {
        const auto* const text = stored ? std::get_if<std::string>(&*stored) : nullptr;
        id = text != nullptr && !text->empty() ? *text : UUID::random(random).text();
        return std::optional<SettingValue>(id);
    };
    store.update(ServiceAccount::deviceIdKey, choose);
    return id;
}

}  // namespace

asio::awaitable<ServiceAccess> ServiceAccount::access() const {
    auto work = [random = random_](SettingsStore& store) {
        ServiceAccess access;
        access.serverURL = trimmed(store.text(serverURLKey).value_or(""));
        while (access.serverURL.ends_with('/')) access.serverURL.pop_back();
        access.userID = trimmed(store.text(userIDKey).value_or(""));
        if (access.userID.empty()) return access;
        access.token = store.text(credentialKey).value_or("");
        access.deviceId = deviceIdOf(store, *random);
        return access;
    };
    return settings_.with(std::move(work));
}

std::optional<ServiceAccount::Login> ServiceAccount::loginOf(std::string_view userID, std::string_view credential) {
    Login login{trimmed(userID), trimmed(credential)};
    if (!canBeSent(login.userID) || !canBeSent(login.credential)) return std::nullopt;
    return login;
}

asio::awaitable<bool> ServiceAccount::signIn(std::string userID, std::string credential) const {
    auto work = [login = loginOf(userID, credential)](SettingsStore& store) {
        if (!login) return false;
        // Whoever reads in between finds nobody, rather than one user with another's credential.
        store.unset(userIDKey);
        store.set(credentialKey, login->credential);
        store.set(userIDKey, login->userID);
        return true;
    };
    return settings_.with(std::move(work));
}

asio::awaitable<void> ServiceAccount::signOut() const {
    auto work = [](SettingsStore& store) {
        store.unset(userIDKey);
        store.unset(credentialKey);
    };
    return settings_.with(std::move(work));
}

}  // namespace skein
