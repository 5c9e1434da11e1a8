#pragma once

#include "app/client/WatchOutput.h"

#include <boost/asio/any_io_executor.hpp>

#include <iosfwd>
#include <string>
#include <string_view>

namespace skein {

/// `chat listen`: what is said, a line a message.
class ChatLines final : public WatchOutput {
public:
    /// `out` is written to on `disk`. `isJSON`: the message as it came, what becomes of the connection,
    /// and what was read.
    ChatLines(asio::any_io_executor disk, std::ostream& out, bool isJSON)
        : disk_(std::move(disk)), out_(out), isJSON_(isJSON) {}

    asio::awaitable<void> take(boost::json::object message) override;
    asio::awaitable<void> stop() override { co_return; }

private:
    const asio::any_io_executor disk_;
    std::ostream& out_;
    const bool isJSON_;
};

/// "2026-11-23 07:00:01  bob → me: hello"; followed by what came with it. `message` has `from`, `to`, `text` and
/// `time`.
std::string chatLine(const boost::json::object& message);
/// "2026-11-23 07:00:01", local time, of the seconds since 1970 that `message` has as `key`.
std::string chatDate(const boost::json::object& message, std::string_view key);

}  // namespace skein
