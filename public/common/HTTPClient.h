#pragma once

#include "public/common/HTTPFetcher.h"
#include "public/common/IPAddress.h"

#include <functional>
#include <memory>
#include <string>

namespace skein {

/// Fetches over HTTP and HTTPS; connections are kept and used again.
///
/// Redirects are followed at most `maxRedirects` times, and never from a public host to an address that is not public:
/// what counts is the address connected to, not the name. (Behind an HTTP proxy that is the proxy's; what lies behind
/// it is the proxy's to judge.) To another host go only the headers that say what is wanted (Accept, Range, If-…), and
/// no body. There are no cookies. Certificates are verified.
/// Time-outs run in real time.
///
/// Owner: the program, one for all; it stops before the pools go on which its callers run. Thread: any; the transfers
/// live on a thread of the client's own, which the first fetch starts.
class HTTPClient final : public HTTPFetcher {
public:
    static constexpr int maxRedirects = 5;

    struct Options {
        std::string userAgent = "skein/" SKEIN_VERSION;
        /// Says which addresses are public; tests have only loopback addresses, and say it otherwise.
        std::function<AddressScope(const IPAddress&)> scopeOf = [](const IPAddress& address) {
            return address.scope();
        };
    };

    HTTPClient();
    explicit HTTPClient(Options options);
    ~HTTPClient() override;

    asio::awaitable<HTTPResponse> fetch(HTTPRequest request) override;
    /// Ends all fetches with operation_aborted, also those to come, and returns when the thread has ended. Waits for
    /// no network. May be called again.
    void stop();

private:
    class Worker;
    // Shared with the cancellation handlers of coroutines, which may be told to cancel what has ended long ago.
    std::shared_ptr<Worker> worker_;
};

}  // namespace skein
