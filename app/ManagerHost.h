#pragma once

#include "app/ChatHost.h"
#include "app/EngineHost.h"
#include "app/ServiceBridge.h"
#include "app/SettingsWatch.h"
#include "app/TransferOptions.h"
#include "downloads/DesktopNotifier.h"
#include "downloads/DownloadManager.h"
#include "public/common/MsgCenter/MsgCenter.h"
#include "service/SkeinServiceClient.h"

#include <memory>

namespace skein {

/// A download manager on the engine of this process.
///
/// Owner and thread: the daemon's command, on the main thread. Made after the host listens; the host outlives it.
class ManagerHost {
public:
    /// Loads the saved list. `options` hold for every task.
    ManagerHost(EngineHost& host, const TransferOptions& options);
    ManagerHost(const ManagerHost&) = delete;
    ManagerHost& operator=(const ManagerHost&) = delete;
    /// Stops every session and saves the list.
    ~ManagerHost();

    DownloadManager& manager() noexcept { return *manager_; }
    SkeinServiceClient& service() noexcept { return client_; }
    ChatHost& chat() noexcept { return chat_; }
    MsgCenter& center() noexcept { return center_; }

private:
    DownloadManager::Environment environment();
    std::filesystem::path downloadFolder() const;
    void applyRates();
    asio::awaitable<void> onSettingsChanged(std::vector<std::string> keys);

    EngineHost& host_;
    const TransferOptions options_;
    LiveSettings settings_;  // on the manager's strand, once that runs
    MsgCenter center_;
    SkeinServiceClient client_;
    ServiceBridge service_;
    ChatHost chat_;
    DesktopNotifier notifier_;
    std::unique_ptr<DownloadManager> manager_;
    std::unique_ptr<SettingsWatch> settingsWatch_;
};

}  // namespace skein
