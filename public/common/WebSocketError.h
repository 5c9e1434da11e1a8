#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace skein {

/// Why a websocket did not open, or is no more.
enum class WebSocketError : std::uint8_t {
    invalidURL,     ///< neither ws nor wss, or no host
    cannotConnect,  ///< no address of the host answered
    insecure,       ///< the certificate or the TLS handshake was refused
    refused,        ///< the server answered the upgrade with something else
    timeout,        ///< opening it, or a send, took too long
    closed,         ///< it broke, was closed by either side, or a message was larger than allowed
};
std::string_view textOf(WebSocketError error) noexcept;

/// `what()` is the text, followed by what the library says.
class WebSocketException : public std::runtime_error {
public:
    explicit WebSocketException(WebSocketError why, std::string_view detail = {})
        : std::runtime_error(std::string(textOf(why)).append(detail)), error(why) {}
    const WebSocketError error;
};

}  // namespace skein
