#pragma once

#include "public/common/HTTPBodyBuffer.h"
#include "public/common/HTTPClient.h"
#include "public/common/HTTPError.h"
#include "public/common/HTTPMessage.h"

#include <boost/system/error_code.hpp>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct curl_slist;

namespace skein {

/// What came of a fetch: a response, or the reason why there is none (no reason: it was aborted).
struct HTTPOutcome {
    std::optional<HTTPResponse> response;
    std::optional<HTTPError> error;
    std::string detail;
};

/// One request inside HTTPClient: a curl handle that is set up anew for each redirect, and what it receives.
///
/// Thread: the client's own.
class HTTPTransfer {
public:
    HTTPTransfer(HTTPRequest request, HTTPBody body, const HTTPClient::Options& options);
    HTTPTransfer(const HTTPTransfer&) = delete;
    HTTPTransfer& operator=(const HTTPTransfer&) = delete;
    ~HTTPTransfer();

    /// curl's easy handle, ready to run; null when the request is refused (see `outcome`).
    void* handle() const noexcept { return handle_; }
    /// The host whose addresses are to be found before the handle runs; nothing when curl needs none, or finds those of
    /// a proxy itself.
    std::optional<std::string> hostToFind() const;
    /// Those of that host. False, and the transfer has ended, when there are none.
    bool setAddresses(const std::vector<IPAddress>& addresses);
    /// Nobody said in time where the host is.
    void giveUpFinding();
    /// The least of the time-outs that are left.
    std::chrono::milliseconds findingLimit() const;
    /// Takes curl's verdict on the handle's run. True: the handle is to run again, for a redirect.
    bool proceed(int curlCode);
    /// After the last run. Of a streamed body that came whole it says nothing.
    HTTPOutcome takeOutcome() { return std::move(outcome_); }

    bool isStreamed() const noexcept { return body_ == HTTPBody::streamed; }
    /// Of a streamed body: what is there and was not yet taken.
    bool hasHead() const noexcept { return head_.has_value(); }
    HTTPResponse takeHead();
    bool hasBody() const noexcept { return heldBytes() > 0; }
    std::size_t heldBytes() const noexcept { return buffer_.heldBytes(); }
    std::vector<Bytes> takeBody();
    void recycle(std::vector<Bytes> chunks) { buffer_.recycle(std::move(chunks)); }
    /// Nothing more comes.
    bool isEnded() const noexcept { return isEnded_; }

private:
    struct FreeList {
        void operator()(curl_slist* list) const noexcept;
    };

    void refuse(HTTPError error, std::string_view detail);
    bool isWellFormed() const;
    bool isRefusedUnasked();
    HTTPError refusalOfDepth() const noexcept;
    bool leaveFromBinding(int socket, bool isIPv4);
    void setUp();
    void setMethod();
    bool follow(const std::string& location);
    bool acceptHeader(std::string_view line);
    void noteHead();
    void describeResponse();
    bool acceptBody(ByteView bytes);
    bool collect(ByteView bytes);
    bool mayConnectTo(const IPAddress& address);
    std::string detailOf(int curlCode) const;

    struct Callbacks;  // what curl calls

    HTTPRequest request_;
    const HTTPBody body_;
    const HTTPClient::Options& options_;
    void* handle_ = nullptr;
    std::unique_ptr<curl_slist, FreeList> headerList_;
    std::unique_ptr<curl_slist, FreeList> addressList_;
    std::array<char, 256> errorText_{};  // CURL_ERROR_SIZE
    const std::chrono::steady_clock::time_point startedAt_ = std::chrono::steady_clock::now();

    HTTPResponse response_;
    std::size_t headerBytes_ = 0;
    int redirects_ = 0;
    AddressDepth deepest_;                ///< to which the next connection may go
    std::optional<HTTPError> stoppedBy_;  ///< why a callback of ours made curl end the run
    boost::system::error_code bindingFault_;
    bool isProxied_ = false;  ///< connections are to the proxy, which is the user's
    bool hasTried_ = false;   ///< a socket was opened to an address of the host
    HTTPOutcome outcome_;

    // Of a streamed body:
    std::optional<HTTPResponse> head_;
    bool hasStarted_ = false;  ///< the head was there: what comes now is the body
    bool isPaused_ = false;
    bool isEnded_ = false;
    HTTPBodyBuffer buffer_;
};

}  // namespace skein
