#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace skein {

/// Why a fetch brought no response. An HTTP status of any kind is a response.
enum class HTTPError : std::uint8_t {
    invalidRequest,     ///< a URL that is none or is neither http nor https, a header with a line break
    forbiddenAddress,   ///< the URL came from outside and leads into the user's network
    cannotResolve,      ///< no address for the host
    cannotConnect,      ///< no address of the host answered
    timeout,            ///< connecting or all of it took too long
    insecure,           ///< the certificate or the TLS handshake was refused
    bodyTooLarge,       ///< more than the request allows
    tooManyRedirects,   ///< more than HTTPClient::maxRedirects
    forbiddenRedirect,  ///< further into the user's network, to another scheme, or with a body to another host
    transferFailed,     ///< the connection broke, or what came is not HTTP
};
std::string_view textOf(HTTPError error) noexcept;

/// `what()` is the text, followed by what the library says.
class HTTPException : public std::runtime_error {
public:
    HTTPException(HTTPError why, std::string_view detail)
        : std::runtime_error(std::string(textOf(why)).append(detail)), error(why) {}
    const HTTPError error;
};

}  // namespace skein
