#pragma once

#include <boost/asio/awaitable.hpp>

#include <string>

namespace skein {

namespace asio = boost::asio;

class TorrentSession;
class TorrentTask;

/// What the download manager asks of the resource service. Nothing of it throws; what fails is tried again later.
/// Thread: the main executor.
class ResourceService {
public:
    ResourceService() = default;
    ResourceService(const ResourceService&) = delete;
    ResourceService& operator=(const ResourceService&) = delete;
    virtual ~ResourceService() = default;

    /// Empty when nobody is signed in.
    virtual std::string signedInUserID() const = 0;
    /// Reports the bytes of a session that is about to stop. Returns soon, whether or not the service answers.
    virtual asio::awaitable<void> flushFinalHeartbeat(TorrentTask& task, TorrentSession& session) = 0;
    /// Has the service forget the torrent; false when it did not confirm.
    virtual asio::awaitable<bool> deleteResource(std::string infoHash) = 0;
};

/// For a program that uses no service: there is nothing to report, and nothing to forget.
class NoResourceService final : public ResourceService {
public:
    std::string signedInUserID() const override { return {}; }
    asio::awaitable<void> flushFinalHeartbeat(TorrentTask& task, TorrentSession& session) override;
    asio::awaitable<bool> deleteResource(std::string infoHash) override;
};

}  // namespace skein
