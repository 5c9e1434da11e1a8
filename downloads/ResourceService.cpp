#include "downloads/ResourceService.h"

namespace skein {

asio::awaitable<void> NoResourceService::flushFinalHeartbeat(TorrentTask&, TorrentSession&) { co_return; }

asio::awaitable<bool> NoResourceService::deleteResource(std::string) { co_return true; }

}  // namespace skein
