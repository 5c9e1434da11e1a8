#pragma once

#include "public/common/Bytes.h"
#include "public/common/HTTPMessage.h"
#include "public/common/TaskGroup.h"
#include "tests/support/SeenHTTPRequest.h"
#include "tests/support/ServerWebSocket.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace skein {

/// What the server answers, well or badly.
struct HTTPReply {
    int status = 200;
    std::vector<HTTPHeader> headers;
    Bytes body;
    std::uint64_t repeats = 1;          ///< how often the body is sent
    std::optional<Bytes> raw;           ///< sent in place of all the above
    bool closes = false;                ///< the connection, once all is sent
    std::size_t stallAfter = SIZE_MAX;  ///< so many bytes of the body are sent, and nothing ever again
    bool cutsOff = false;               ///< then, instead of falling silent, closes the connection

    static HTTPReply text(std::string_view body, int status = 200);
    /// `content` or the range of it that is asked for (RFC 9110, 14.2), if it is still of that entity tag.
    static HTTPReply file(const SeenHTTPRequest& request, ByteView content, const std::string& entityTag);
    static HTTPReply redirect(std::string location, int status = 302);
};

/// An HTTP/1.1 server on loopback that answers as the test says.
///
/// Owner: the test, which awaits `stop()`. Thread: all runs on a strand over the given executor; on a Simulation that
/// is the test's own thread, and what is recorded may be read at any time.
class ScriptedHTTPServer {
public:
    using Script = std::function<HTTPReply(const SeenHTTPRequest&)>;
    /// Serves one websocket, whose upgrade was read and not answered; it is closed when this ends, however it ends.
    using Conversation = std::function<asio::awaitable<void>(ServerWebSocket&)>;

    /// Listens at once, on a port of the system's choice unless one is given.
    ScriptedHTTPServer(const asio::any_io_executor& pool, Script script, std::string_view address = "127.0.0.1",
                       std::uint16_t port = 0);
    asio::awaitable<void> stop();
    /// Who asks for a websocket gets one. Conversations run on the server's strand, and `stop` ends them.
    void onUpgrade(Conversation conversation) { conversation_ = std::move(conversation); }
    /// Breaks all websockets off, as a server does that dies.
    void cutAll();

    std::uint16_t port() const { return port_; }
    /// "http://127.0.0.1:PORT" and `target`.
    std::string url(std::string_view target = "/") const;

    const std::vector<SeenHTTPRequest>& requests() const { return requests_; }
    int acceptedConnections() const { return accepted_; }
    int openConnections() const { return open_; }
    std::uint64_t sentBytes() const { return sent_; }

private:
    asio::awaitable<void> acceptAll();
    asio::awaitable<void> serve(asio::ip::tcp::socket socket);
    asio::awaitable<void> serveAll(asio::ip::tcp::socket& socket);
    asio::awaitable<void> converse(asio::ip::tcp::socket socket, SeenHTTPRequest upgrade);
    asio::awaitable<bool> answer(asio::ip::tcp::socket& socket, bool isHead, HTTPReply reply);
    asio::awaitable<void> send(asio::ip::tcp::socket& socket, ByteView bytes);
    asio::awaitable<void> waitForEnd(asio::ip::tcp::socket& socket);

    Script script_;
    Conversation conversation_;
    std::list<ServerWebSocket> webSockets_;
    const std::string host_;
    std::vector<SeenHTTPRequest> requests_;
    int accepted_ = 0;
    int open_ = 0;
    std::uint64_t sent_ = 0;
    TaskGroup tasks_;
    asio::ip::tcp::acceptor acceptor_;
    const std::uint16_t port_;
};

}  // namespace skein
