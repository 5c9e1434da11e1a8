#pragma once

#include "public/common/Bytes.h"
#include "public/common/HTTPMessage.h"

#include <boost/asio/awaitable.hpp>

#include <cstdint>
#include <memory>
#include <vector>

namespace skein {

namespace asio = boost::asio;

class HTTPWorker;

/// A response whose body is read as it comes, in portions. What is not read waits at the server: at most
/// HTTPBodyBuffer::maxHeldBytes are held here.
///
/// Owner: whoever opened it; when it goes, the transfer ends. Thread: any, one call at a time.
class HTTPStream {
public:
    HTTPStream(std::shared_ptr<HTTPWorker> worker, std::uint64_t id, HTTPResponse head);
    HTTPStream(const HTTPStream&) = delete;
    HTTPStream& operator=(const HTTPStream&) = delete;
    ~HTTPStream();

    /// Without the body.
    const HTTPResponse& head() const noexcept { return head_; }
    /// All that has come by now, at least one byte; empty at the end of a whole body. Throws HTTPException when the
    /// body ended before its length (transferFailed), once all that came has been read, and boost::system::system_error
    /// (operation_aborted) when the caller is cancelled, which ends the transfer, or the client stops.
    asio::awaitable<std::vector<Bytes>> read();
    /// Gives chunks back that `read` returned: their memory takes what comes next.
    void recycle(std::vector<Bytes> chunks) { spent_ = std::move(chunks); }

private:
    std::shared_ptr<HTTPWorker> worker_;
    std::uint64_t id_;
    HTTPResponse head_;
    std::vector<Bytes> spent_;
};

}  // namespace skein
