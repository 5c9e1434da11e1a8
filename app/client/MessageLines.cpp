#include "app/client/MessageLines.h"

#include "app/Command.h"
#include "public/common/PlainJSON.h"
#include "public/common/RunOn.h"

#include <ostream>

namespace skein {

asio::awaitable<void> MessageLines::take(boost::json::object message) {
    auto write = [this, line = plainJSON(message)] {
        if (!(out_ << line << std::endl)) throw CommandFailure("watch", "writing the output failed");
    };
    co_await runOn(disk_, std::move(write));
}

}  // namespace skein
