#pragma once

#include "public/common/HTTPError.h"
#include "public/common/HTTPMessage.h"

#include <boost/asio/awaitable.hpp>

namespace skein {

namespace asio = boost::asio;

/// Whatever fetches over HTTP: HTTPClient in the program, a test's own. Thread: any.
class HTTPFetcher {
public:
    HTTPFetcher() = default;
    HTTPFetcher(const HTTPFetcher&) = delete;
    HTTPFetcher& operator=(const HTTPFetcher&) = delete;
    virtual ~HTTPFetcher() = default;

    /// Returns the response, whatever its status. Throws HTTPException, and boost::system::system_error
    /// (operation_aborted) when the caller is cancelled or the fetcher stops.
    virtual asio::awaitable<HTTPResponse> fetch(HTTPRequest request) = 0;
};

}  // namespace skein
