#pragma once

#include "app/api/ByteBudget.h"
#include "app/api/ConnectionRoom.h"
#include "app/api/ServerSocket.h"
#include "public/common/Clock.h"
#include "public/common/FileLogger.h"
#include "public/common/TaskGroup.h"

#include <boost/asio/ip/tcp.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace skein {

struct HTTPServerRequest {
    std::string method;                          ///< as sent: "GET"
    std::string path;                            ///< without the query, as sent
    std::map<std::string, std::string> query;    ///< percent-decoded; the last of a repeated name
    std::map<std::string, std::string> headers;  ///< names in lower case
    std::string body;
    bool isUpgrade = false;  ///< it wants to become a websocket

    /// The header's value; empty when it was not sent.
    std::string_view header(const std::string& name) const;
};

struct HTTPServerResponse {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
    std::function<void()> afterwards = nullptr;   ///< called once the answer is on its way
    ServerSocket::Conversation socket = nullptr;  ///< instead of an answer to an upgrade: what becomes of the websocket
};

/// A small HTTP/1.1 server for programs on this machine. Source: RFC 9112.
///
/// What clients can make it hold is bounded: connections (ConnectionRoom), sizes, and the time that a request may take
/// to come in; who is refused gets no body read. Owner: the daemon, which awaits `stop()`. Thread: the strand given, on
/// which the callbacks run too.
class HTTPServer {
public:
    static constexpr std::uint32_t maxHeaderBytes = 16'384;
    /// Of a head, its path and query.
    static constexpr std::size_t maxTargetBytes = 8'192;
    /// The largest `.torrent` that is taken.
    static constexpr std::uint64_t maxTorrentBytes = std::uint64_t{32} << 20U;
    /// Of any other body: commands are short.
    static constexpr std::uint64_t maxBodyBytes = std::uint64_t{64} << 10U;
    /// Of all long bodies that are here at once: three of the largest.
    static constexpr std::uint64_t maxBodiesBytes = 3 * maxTorrentBytes;
    /// For a request's head to come in; an idle connection ends after it too.
    static constexpr std::chrono::seconds headPatience{10};
    /// For its body, and for an answer to go out.
    static constexpr std::chrono::seconds patience{30};
    /// For a refused client to see why, before the connection is cut with what it still sends.
    static constexpr std::chrono::seconds lingerTime{2};

    struct Callbacks {
        /// Judges a request by its head, before anything else of it is read; nothing when it may pass. A connection
        /// that had one pass counts as proven.
        std::function<std::optional<HTTPServerResponse>(const HTTPServerRequest&)> refusalOf;
        std::function<asio::awaitable<HTTPServerResponse>(HTTPServerRequest)> answer;
    };

    HTTPServer(const Strand& strand, Clock& clock, FileLogger& log, Callbacks callbacks);
    ~HTTPServer();

    /// Clients can connect from here on; port 0 lets the system choose. Throws boost::system::system_error.
    void bind(const std::string& address, std::uint16_t port);
    std::uint16_t port() const noexcept { return port_; }
    /// Serves them. Once, after `bind`.
    void accept();
    /// Ends every connection and websocket at once.
    asio::awaitable<void> stop() { return tasks_.stop(); }

private:
    class Connection;

    asio::awaitable<void> acceptAll();
    asio::awaitable<void> serve(asio::ip::tcp::socket socket);

    Clock& clock_;
    FileLogger& log_;
    const Callbacks callbacks_;
    std::uint16_t port_ = 0;
    ConnectionRoom room_;
    ByteBudget bodies_{maxBodiesBytes};
    std::optional<asio::ip::tcp::acceptor> acceptor_;
    TaskGroup tasks_;
};

}  // namespace skein
