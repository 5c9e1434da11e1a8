#pragma once

#include "app/api/DaemonFile.h"
#include "app/client/APIPort.h"
#include "public/common/HTTPClient.h"
#include "public/common/ThreadPools.h"
#include "public/common/WebSocketClient.h"

#include <boost/json/fwd.hpp>
#include <boost/json/value.hpp>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

namespace skein {

/// Thrown when no daemon runs for the home.
class NoDaemon : public std::runtime_error {
public:
    NoDaemon() : std::runtime_error("no daemon is running") {}
};

/// Speaks to the running daemon of a home. Owner and thread: a command, on the main thread, unless it is said
/// otherwise.
class DaemonClient final : public APIPort {
public:
    /// Throws NoDaemon.
    explicit DaemonClient(const std::filesystem::path& home);
    ~DaemonClient() override;

    // All that asks the daemon throws NoDaemon when it is gone, CommandFailure when it has answered nothing for 5 s (to
    // another call, while it works on this one), and DaemonRefusal.
    /// `query` begins with "?": where it is to go.
    boost::json::value addTorrent(Bytes torrentData, const std::string& query);
    /// Waits until the daemon has let go of its home; false when it still has it after `limit`.
    bool waitForEnd(std::chrono::seconds limit) const;

    /// As the others, without waiting. Any thread.
    asio::awaitable<boost::json::value> ask(std::string method, std::string path);
    /// Opens the daemon's event stream.
    WebSocketRequest eventStream() const;
    /// What runs there is stopped before the client goes.
    ThreadPools& pools() noexcept { return pools_; }

    /// The info-hashes that `names` stand for: a whole one, a prefix of four digits or more, or a task's number, of
    /// three digits at most or after a "#". Throws CommandFailure for what names none or several.
    std::vector<std::string> resolve(const std::vector<std::string>& names);

private:
    HTTPRequest request(const std::string& method, const std::string& path, const std::string& contentType,
                        Bytes body) const;
    boost::json::value send(const std::string& method, const std::string& path, const std::string& contentType,
                            Bytes body) override;

    asio::awaitable<HTTPResponse> watched(HTTPRequest question);
    asio::awaitable<void> greet();
    asio::awaitable<void> keepGreeting();

    const std::filesystem::path home_;
    const DaemonAddress daemon_;
    ThreadPools pools_;
    HTTPClient http_;
};

/// The info-hash of the one of `tasks` that `name` stands for. Throws CommandFailure.
std::string resolveTask(const boost::json::array& tasks, const std::string& name);

}  // namespace skein
