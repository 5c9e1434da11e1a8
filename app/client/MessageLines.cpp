#include "app/client/MessageLines.h"

#include "app/Command.h"
#include "public/common/RunOn.h"

#include <boost/json/serialize.hpp>

#include <ostream>

namespace skein {

asio::awaitable<void> MessageLines::take(boost::json::object message) {
    auto write = [this, line = boost::json::serialize(message)] {
        if (!(out_ << line << std::endl)) throw CommandFailure("watch", "writing the output failed");
    };
    co_await runOn(disk_, std::move(write));
}

}  // namespace skein
