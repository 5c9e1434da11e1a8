#pragma once

#include "public/common/HTTPMessage.h"
#include "public/common/TaskGroup.h"
#include "public/common/WebSocketMessage.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace skein {

/// The client's end of a websocket over TCP, with TLS or without: the steps, each by itself. Source: RFC 6455.
///
/// Owner: a WebSocketClient, which bounds the time of each step. Thread: the strand that it was made for. All throw
/// boost::system::system_error.
class WebSocketStream {
public:
    WebSocketStream(const Strand& strand, std::size_t maxMessageBytes);
    WebSocketStream(const WebSocketStream&) = delete;
    WebSocketStream& operator=(const WebSocketStream&) = delete;
    ~WebSocketStream();

    /// To be connected first; closing it ends all that waits.
    asio::ip::tcp::socket& socket() noexcept;
    /// Everything is encrypted from here on, for a server that proves to be `host` by the system's certificates.
    asio::awaitable<void> secureAs(std::string host);
    /// Throws WebSocketException where the server answers, but not with a websocket.
    asio::awaitable<void> upgrade(std::string authority, std::string path, std::vector<HTTPHeader> headers);
    asio::awaitable<WebSocketMessage> read();
    asio::awaitable<void> write(WebSocketMessage message);
    asio::awaitable<void> close();

private:
    struct Parts;
    const std::unique_ptr<Parts> parts_;
};

}  // namespace skein
