#include "public/common/HTTPStream.h"

#include "public/common/HTTPAsk.h"

namespace skein {

HTTPStream::HTTPStream(std::shared_ptr<HTTPWorker> worker, std::uint64_t id, HTTPResponse head)
    : worker_(std::move(worker)), id_(id), head_(std::move(head)) {}

HTTPStream::~HTTPStream() { worker_->cancel(id_); }

asio::awaitable<std::vector<Bytes>> HTTPStream::read() {
    const auto exchange = std::make_shared<HTTPExchange>();
    exchange->chunks = std::move(spent_);
    const auto start = [this, &exchange](HTTPWorker::Done done) { worker_->read(id_, exchange, std::move(done)); };
    co_await askWorker(worker_, id_, exchange, start);
    co_return std::move(exchange->chunks);
}

}  // namespace skein
