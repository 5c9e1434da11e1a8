#include "public/common/Notifier.h"

#include <boost/asio/as_tuple.hpp>
#include <boost/asio/error.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>

namespace skein {

asio::awaitable<void> Notifier::wait() {
    const auto seen = changes_;
    co_await timer_.async_wait(asio::as_tuple(asio::use_awaitable));
    if (changes_ == seen) throw boost::system::system_error(asio::error::operation_aborted);
}

}  // namespace skein
