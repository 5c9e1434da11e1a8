#pragma once

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

    /// The header's value; empty when it was not sent.
    std::string_view header(const std::string& name) const;
};

struct HTTPServerResponse {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
    std::function<void()> afterwards;  ///< called once the answer is on its way
};

/// A small HTTP/1.1 server for programs on this machine. Source: RFC 9112.
///
/// What one client can make it hold is bounded: connections, sizes, and the time that a request may take to come in.
/// Owner: the daemon, which awaits `stop()`. Thread: the strand given, on which the handler runs too.
class HTTPServer {
public:
    static constexpr std::size_t maxConnections = 64;
    static constexpr std::uint32_t maxHeaderBytes = 16'384;
    /// The largest `.torrent` that is taken.
    static constexpr std::uint64_t maxBodyBytes = std::uint64_t{32} << 20U;
    /// For a whole request to come in, or an answer to go out; an idle connection ends after it too.
    static constexpr std::chrono::seconds patience{30};

    using Handler = std::function<asio::awaitable<HTTPServerResponse>(HTTPServerRequest)>;

    HTTPServer(const Strand& strand, Clock& clock, FileLogger& log, Handler handler);
    ~HTTPServer();

    /// Listens at once; port 0 lets the system choose. Throws boost::system::system_error. Before the strand runs.
    void listen(const std::string& address, std::uint16_t port);
    std::uint16_t port() const noexcept { return port_; }
    asio::awaitable<void> stop();

private:
    class Connection;

    asio::awaitable<void> acceptAll();
    asio::awaitable<void> serve(asio::ip::tcp::socket socket);

    Clock& clock_;
    FileLogger& log_;
    const Handler handler_;
    std::uint16_t port_ = 0;
    std::size_t connections_ = 0;
    std::optional<asio::ip::tcp::acceptor> acceptor_;
    TaskGroup tasks_;
};

}  // namespace skein
