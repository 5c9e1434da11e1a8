#pragma once

#include "Core/engine/ResourceRecords.h"
#include "public/common/ActorSettings.h"
#include "public/common/Random.h"

#include <optional>
#include <string>
#include <string_view>

namespace skein {

/// Where the resource service is and who is signed in there, as the settings keep it.
///
/// Owner: whoever wants to; it is a few references, and cheap to copy. The settings and `random` outlive every call.
/// Thread: any. All operations throw DatabaseException.
class ServiceAccount {
public:
    // The keys of the settings.
    static constexpr const char* serverURLKey = "skeinserverUrl";
    static constexpr const char* userIDKey = "account.userID";
    static constexpr const char* credentialKey = "account.credential";  ///< a secret: never shown, never logged
    static constexpr const char* deviceIdKey = "account.deviceId";

    /// Who signs in, as it is stored and sent.
    struct Login {
        std::string userID;
        std::string credential;
    };

    ServiceAccount(ActorSettings settings, Random& random) : settings_(std::move(settings)), random_(&random) {}

    /// Read anew each time. Once a user is signed in, this installation has a device id, and keeps it.
    asio::awaitable<ServiceAccess> access() const;
    /// Without the blanks around either. Nothing when one is then empty or cannot be sent (it holds a control
    /// character).
    static std::optional<Login> loginOf(std::string_view userID, std::string_view credential);
    /// False, and nothing changes, when `loginOf` finds nothing in them. Nobody asks the service.
    asio::awaitable<bool> signIn(std::string userID, std::string credential) const;
    /// Forgets user and credential; the device id stays.
    asio::awaitable<void> signOut() const;

private:
    ActorSettings settings_;
    Random* random_;
};

}  // namespace skein
