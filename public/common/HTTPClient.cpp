#include "public/common/HTTPClient.h"

#include "public/common/HTTPAsk.h"
#include "public/common/HTTPStream.h"
#include "public/common/HTTPWorker.h"

#include <utility>

namespace skein {

std::string_view textOf(HTTPError error) noexcept {
    switch (error) {
        case HTTPError::invalidRequest: return "Not a valid HTTP request: ";
        case HTTPError::forbiddenAddress: return "The host is not asked: ";
        case HTTPError::cannotResolve: return "The host was not found: ";
        case HTTPError::cannotConnect: return "The host cannot be reached: ";
        case HTTPError::timeout: return "The request timed out: ";
        case HTTPError::insecure: return "No secure connection: ";
        case HTTPError::bodyTooLarge: return "The response is too large: ";
        case HTTPError::tooManyRedirects: return "Too many redirects: ";
        case HTTPError::forbiddenRedirect: return "The redirect is not allowed: ";
        case HTTPError::transferFailed: break;
    }
    return "The transfer failed: ";
}

std::optional<std::string_view> HTTPResponse::header(std::string_view name) const noexcept {
    for (const HTTPHeader& candidate : headers)
        if (candidate.name == name) return candidate.value;
    return std::nullopt;
}

HTTPClient::HTTPClient() : HTTPClient(Options{}) {}
HTTPClient::HTTPClient(Options options) : worker_(std::make_shared<HTTPWorker>(std::move(options))) {}
HTTPClient::~HTTPClient() { worker_->stop(); }
void HTTPClient::stop() { worker_->stop(); }

asio::awaitable<HTTPResponse> HTTPClient::fetch(HTTPRequest request) {
    return begin(HTTPBody::collected, std::move(request), worker_->newId());
}

asio::awaitable<std::unique_ptr<HTTPStream>> HTTPClient::open(HTTPRequest request) {
    const std::uint64_t id = worker_->newId();
    HTTPResponse head = co_await begin(HTTPBody::streamed, std::move(request), id);
    co_return std::make_unique<HTTPStream>(worker_, id, std::move(head));
}

asio::awaitable<HTTPResponse> HTTPClient::begin(HTTPBody body, HTTPRequest request, std::uint64_t id) {
    const auto exchange = std::make_shared<HTTPExchange>();
    exchange->request = std::move(request);
    const auto start = [this, id, body, &exchange](HTTPWorker::Done done) {
        worker_->begin(id, body, exchange, std::move(done));
    };
    co_await askWorker(worker_, id, exchange, start);
    co_return std::move(*exchange->outcome.response);
}

}  // namespace skein
