#include "public/common/Gate.h"

#include <boost/asio/experimental/concurrent_channel.hpp>
#include <boost/asio/use_awaitable.hpp>

namespace skein {

/// A message for each place that is free.
class Gate::Places {
public:
    Places(const asio::any_io_executor& executor, std::size_t count) : free_(executor, count) {
        for (std::size_t place = 0; place < count; ++place) release();
    }
    asio::awaitable<void> take() { return free_.async_receive(asio::use_awaitable); }
    void release() { free_.try_send(boost::system::error_code()); }

private:
    asio::experimental::concurrent_channel<void(boost::system::error_code)> free_;
};

Gate::Gate(const asio::any_io_executor& executor, std::size_t places)
    : places_(std::make_shared<Places>(executor, places)) {}

Gate::Pass::~Pass() {
    if (places_) places_->release();
}

asio::awaitable<Gate::Pass> Gate::enter() const {
    if (places_) co_await places_->take();
    co_return Pass(places_);
}

}  // namespace skein
