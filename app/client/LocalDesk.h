#pragma once

#include "app/ChatHost.h"
#include "app/EngineHost.h"
#include "app/api/AccountRoutes.h"
#include "app/api/ChatRoutes.h"
#include "app/api/Router.h"
#include "app/client/APIPort.h"
#include "service/SkeinServiceClient.h"

#include <chrono>
#include <filesystem>

namespace skein {

/// Answers calls about the account and the chat in this process, while no daemon runs.
class LocalDesk final : public APIPort {
public:
    /// Where nobody was connected before: for the login and the answer of the chat server, before the store's will do.
    static constexpr std::chrono::seconds chatPatience{5};

    explicit LocalDesk(const std::filesystem::path& home);

    EngineHost& host() noexcept { return host_; }
    ChatHost& chat() noexcept { return chat_; }
    /// What happens in the chat is published here.
    MsgCenter& center() noexcept { return center_; }

private:
    boost::json::value send(const std::string& method, const std::string& path, const std::string& contentType,
                            Bytes body) override;

    EngineHost host_;
    MsgCenter center_;
    SkeinServiceClient service_;
    ChatHost chat_;
    AccountRoutes account_;
    ChatRoutes chatRoutes_;
    Router router_;
};

}  // namespace skein
