#pragma once

#include "app/api/DaemonFile.h"
#include "public/common/HTTPClient.h"
#include "public/common/ThreadPools.h"

#include <boost/json/value.hpp>

#include <filesystem>
#include <string>
#include <vector>

namespace skein {

/// Thrown when no daemon runs for the home.
class NoDaemon : public std::runtime_error {
public:
    NoDaemon() : std::runtime_error("no daemon is running") {}
};

/// Speaks to the running daemon of a home. Owner and thread: a command, on the main thread.
class DaemonClient {
public:
    /// Throws NoDaemon.
    explicit DaemonClient(const std::filesystem::path& home);
    ~DaemonClient();

    // What the daemon answers. Throw CommandFailure with its text when it refuses, and NoDaemon when it is gone.
    boost::json::value get(const std::string& path);
    boost::json::value post(const std::string& path, const boost::json::value& body = nullptr);
    boost::json::value patch(const std::string& path, const boost::json::value& body);
    boost::json::value remove(const std::string& path);
    boost::json::value addTorrent(Bytes torrentData);
    /// The body of an HTTP(S) address that ends in ".torrent". Throws CommandFailure.
    Bytes fetch(const std::string& url);

    /// The info-hashes that `names` stand for: a whole one, a prefix of four digits or more, or a row number of the
    /// list. Throws CommandFailure for what names none or several.
    std::vector<std::string> resolve(const std::vector<std::string>& names);

private:
    boost::json::value send(const std::string& method, const std::string& path, const std::string& contentType,
                            Bytes body);

    const DaemonAddress daemon_;
    ThreadPools pools_;
    HTTPClient http_;
};

/// Which task of `infoHashes`, the list in its order, `name` stands for. Throws CommandFailure.
std::string resolveTask(const std::vector<std::string>& infoHashes, const std::string& name);

}  // namespace skein
