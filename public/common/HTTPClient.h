#pragma once

#include "public/common/HTTPFetcher.h"
#include "public/common/IPAddress.h"
#include "public/common/LocalBinding.h"
#include "public/common/NameLookups.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace skein {

class HTTPStream;
class HTTPWorker;

/// Where the body of a response goes.
enum class HTTPBody : std::uint8_t {
    collected,  ///< into the response
    streamed,   ///< to a reader, as it comes
};

/// Fetches over HTTP and HTTPS; the connections of GET and HEAD are kept and used again, other requests are never sent
/// twice.
///
/// Redirects are followed at most `maxRedirects` times, and never further into the user's network than the host that
/// sent them: from a public host to public ones alone. A URL from outside counts as sent by a public host. What counts
/// is the address connected to, not the name. (Behind an HTTP proxy, what a name leads to is the proxy's to judge.) To
/// another host go only the headers that say what is wanted (Accept, Range, If-…), and no body. There are no cookies.
/// Certificates are verified. Time-outs run in real time.
///
/// Owner: the program, one for all; it stops before the pools go on which its callers run. Thread: any; the transfers
/// live on a thread of the client's own, which the first fetch starts.
class HTTPClient final : public HTTPFetcher {
public:
    static constexpr int maxRedirects = 5;

    struct Options {
        std::string userAgent = "skein/" SKEIN_VERSION;
        std::shared_ptr<NameLookups> lookups = NameLookups::shared();
        LocalBinding binding;  ///< where requests leave from; what cannot be reached from there is not asked
        /// Says which addresses are public; tests have only loopback addresses, and say it otherwise.
        std::function<AddressScope(const IPAddress&)> scopeOf = [](const IPAddress& address) {
            return address.scope();
        };
    };

    HTTPClient();
    explicit HTTPClient(Options options);
    ~HTTPClient() override;

    asio::awaitable<HTTPResponse> fetch(HTTPRequest request) override;
    /// Returns as soon as the head of the response is there, whatever its status; the body is read from the stream.
    /// `maxBodyBytes` does not count. Throws as `fetch` does.
    asio::awaitable<std::unique_ptr<HTTPStream>> open(HTTPRequest request);
    /// Ends all fetches and streams with operation_aborted, also those to come, and returns when the thread has ended.
    /// Waits for no network. May be called again.
    void stop();

private:
    asio::awaitable<HTTPResponse> begin(HTTPBody body, HTTPRequest request, std::uint64_t id);

    // Shared with the streams, and with the cancellation handlers of coroutines.
    std::shared_ptr<HTTPWorker> worker_;
};

}  // namespace skein
