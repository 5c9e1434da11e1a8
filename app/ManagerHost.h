#pragma once

#include "app/EngineHost.h"
#include "app/TransferOptions.h"
#include "downloads/DesktopNotifier.h"
#include "downloads/DownloadManager.h"
#include "downloads/ResourceService.h"
#include "public/common/MsgCenter/MsgCenter.h"

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
    MsgCenter& center() noexcept { return center_; }

private:
    DownloadManager::Environment environment();

    EngineHost& host_;
    const TransferOptions options_;
    const TorrentSession::Options defaults_;  // what the settings said at the start
    MsgCenter center_;
    NoResourceService service_;
    DesktopNotifier notifier_;
    std::unique_ptr<DownloadManager> manager_;
};

}  // namespace skein
