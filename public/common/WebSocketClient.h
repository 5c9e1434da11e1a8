#pragma once

#include "public/common/Clock.h"
#include "public/common/HTTPMessage.h"
#include "public/common/Notifier.h"
#include "public/common/TaskGroup.h"
#include "public/common/WayOut.h"
#include "public/common/WebSocketError.h"
#include "public/common/WebSocketMessage.h"

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/steady_timer.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace skein {

namespace asio = boost::asio;

class WebSocketStream;

struct WebSocketRequest {
    std::string url;                                ///< ws or wss, with path and query as they are to be sent
    std::vector<HTTPHeader> headers;                ///< of the upgrade
    std::chrono::milliseconds openTimeout{15'000};  ///< for the name, TCP, TLS and the upgrade together
    std::chrono::milliseconds sendTimeout{30'000};  ///< for one message to be taken
    std::size_t maxMessageBytes = std::size_t{1} << 20U;
};

/// One websocket to a server, opened once and not reopened. Source: RFC 6455. Pings are answered while `receive` waits.
///
/// Certificates of `wss` are verified against the system's, and the host name with them.
/// Owner: whoever opened it, and awaits `stop()` before it goes. Thread: any; the state lives on the strand of
/// `tasks_`. All throw WebSocketException, and boost::system::system_error (operation_aborted) when the caller is
/// cancelled or the client stops. A call that was cancelled leaves the socket of no further use.
class WebSocketClient {
public:
    static constexpr std::chrono::milliseconds goodbyePatience{200};

    WebSocketClient(const asio::any_io_executor& pool, Clock& clock, WayOut way, WebSocketRequest request);
    /// On an actor's strand: its calls change no thread.
    WebSocketClient(const Strand& strand, Clock& clock, WayOut way, WebSocketRequest request);
    WebSocketClient(const WebSocketClient&) = delete;
    WebSocketClient& operator=(const WebSocketClient&) = delete;
    ~WebSocketClient();

    /// Returns when messages can flow.
    asio::awaitable<void> open();
    /// The next message. One call at a time; may run beside sends. What is not received waits at the server.
    asio::awaitable<WebSocketMessage> receive();
    /// Returns when all of the message is with the system. Further calls wait their turn, and go out in their order.
    asio::awaitable<void> send(WebSocketMessage message);
    /// Says goodbye, waits at most `goodbyePatience` of real time for the server's, and returns when nothing of the
    /// client runs any more. May be called again.
    asio::awaitable<void> stop();

private:
    asio::awaitable<void> doOpen();
    asio::awaitable<void> connectAndUpgrade();
    asio::awaitable<void> connect(std::vector<IPAddress> addresses, std::uint16_t port);
    asio::awaitable<WebSocketMessage> doReceive();
    asio::awaitable<void> doSend(WebSocketMessage message);
    asio::awaitable<void> write(WebSocketMessage message);
    asio::awaitable<void> shutDown();
    asio::awaitable<void> sayGoodbye();
    void breakOff() noexcept;

    Clock& clock_;
    const WayOut way_;
    const WebSocketRequest request_;
    std::unique_ptr<WebSocketStream> stream_;
    std::uint64_t sendsBegun_ = 0;
    std::uint64_t sendsEnded_ = 0;
    bool isOpen_ = false;
    bool isBroken_ = false;
    Notifier sendEnded_;
    asio::steady_timer goodbyeLimit_;
    TaskGroup tasks_;
};

}  // namespace skein
